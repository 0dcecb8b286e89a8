#include "Text.h"

#include <cstdarg>
#include <cstdio>
#include <unicode/ustring.h>

namespace orvpub {

bool ToUtf16(const std::string& in, Utf16& out)
{
    static_assert(sizeof(UChar) == sizeof(unsigned short), "UTF-16 units");
    UErrorCode error = U_ZERO_ERROR;
    int32_t length = 0;
    u_strFromUTF8(nullptr, 0, &length, in.data(), static_cast<int32_t>(in.size()), &error);
    if (error != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(error))
        return false;
    out.assign(static_cast<size_t>(length), 0);
    error = U_ZERO_ERROR;
    u_strFromUTF8(reinterpret_cast<UChar*>(&out[0]), length + 1, nullptr, in.data(), static_cast<int32_t>(in.size()),
                  &error);
    return U_SUCCESS(error);
}

std::string Narrow(const wchar_t* text)
{
    static_assert(sizeof(wchar_t) == sizeof(UChar32), "wide strings hold UTF-32");
    if (text == nullptr)
        return "";
    const auto* units = reinterpret_cast<const UChar32*>(text);
    UErrorCode error = U_ZERO_ERROR;
    int32_t length = 0;
    u_strFromUTF32WithSub(nullptr, 0, &length, units, -1, 0xFFFD, nullptr, &error);
    std::u16string utf16(static_cast<size_t>(length), u'\0');
    error = U_ZERO_ERROR;
    u_strFromUTF32WithSub(&utf16[0], length + 1, nullptr, units, -1, 0xFFFD, nullptr, &error);
    error = U_ZERO_ERROR;
    u_strToUTF8(nullptr, 0, &length, utf16.data(), static_cast<int32_t>(utf16.size()), &error);
    std::string out(static_cast<size_t>(length), '\0');
    error = U_ZERO_ERROR;
    u_strToUTF8(&out[0], length + 1, nullptr, utf16.data(), static_cast<int32_t>(utf16.size()), &error);
    return U_SUCCESS(error) ? out : std::string();
}

std::string WithHint(const std::string& text, const std::string& hint)
{
    if (hint.empty())
        return text;
    return text + (!text.empty() && text.back() == '.' ? " " : ". ") + hint + ".";
}

std::string Printable(const std::string& text)
{
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        // C1 controls (U+0080 to U+009F, "\xc2\x80" to "\xc2\x9f") start sequences too.
        const bool c1 = c == 0xC2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) < 0xA0 &&
                        static_cast<unsigned char>(text[i + 1]) >= 0x80;
        if (c == '\n')
            out += "\\n";
        else if (c == '\r')
            out += "\\r";
        else if (c == '\t')
            out += "\\t";
        else if (c < 0x20 || c == 0x7F)
            out += Printf("\\u%04x", c);
        else if (c1)
            out += Printf("\\u%04x", static_cast<unsigned char>(text[++i]));
        else
            out += text[i];
    }
    return out;
}

std::string FormatBytes(double bytes)
{
    static const char* const kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    size_t unit = 0;
    while (bytes >= 1024 && unit + 1 < sizeof kUnits / sizeof kUnits[0]) {
        bytes /= 1024;
        ++unit;
    }
    return unit == 0 ? Printf("%.0f B", bytes) : Printf("%.1f %s", bytes, kUnits[unit]);
}

std::string FormatRate(double bytesPerSecond)
{
    return FormatBytes(bytesPerSecond) + "/s";
}

std::string FormatClock(double seconds)
{
    const unsigned long total = seconds < 0 ? 0 : static_cast<unsigned long>(seconds + 0.5);
    if (total >= 3600)
        return Printf("%lu:%02lu:%02lu", total / 3600, total / 60 % 60, total % 60);
    return Printf("%lu:%02lu", total / 60, total % 60);
}

std::string Printf(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(nullptr, 0, format, args);
    va_end(args);
    std::string out(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    if (length > 0)
        std::vsnprintf(&out[0], out.size() + 1, format, again);
    va_end(again);
    return out;
}

} // namespace orvpub
