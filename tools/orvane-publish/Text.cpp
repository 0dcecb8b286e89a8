#include "Text.h"

#include "sys/Errors.h"
#include "sys/Unicode.h"

#include <cstdarg>
#include <cstdio>

namespace orvpub {

bool ToUtf16(const std::string& in, Utf16& out)
{
    try {
        out = Unicode::ToUTF16(in).str();
        return true;
    } catch (const QRX_RuntimeError&) {
        return false; // not UTF-8
    }
}

std::string Narrow(const wchar_t* text)
{
    return text != nullptr ? Unicode::ToUTF8Lossy(text) : std::string();
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
