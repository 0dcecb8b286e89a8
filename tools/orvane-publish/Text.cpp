#include "Text.h"

#include <cstdarg>
#include <cstdio>

namespace orvpub {

bool ToUtf16(const std::string& in, Utf16& out)
{
    out.clear();
    for (size_t i = 0; i < in.size();) {
        const unsigned char c = static_cast<unsigned char>(in[i]);
        unsigned long cp = 0;
        size_t extra = 0;
        if (c < 0x80) {
            cp = c;
        } else if ((c & 0xE0) == 0xC0) {
            cp = c & 0x1F;
            extra = 1;
        } else if ((c & 0xF0) == 0xE0) {
            cp = c & 0x0F;
            extra = 2;
        } else if ((c & 0xF8) == 0xF0) {
            cp = c & 0x07;
            extra = 3;
        } else {
            return false;
        }
        if (i + extra >= in.size() && extra > 0)
            return false;
        for (size_t k = 1; k <= extra; ++k) {
            const unsigned char next = static_cast<unsigned char>(in[i + k]);
            if ((next & 0xC0) != 0x80)
                return false;
            cp = (cp << 6) | (next & 0x3F);
        }
        static const unsigned long kMin[] = {0, 0x80, 0x800, 0x10000};
        if (cp < kMin[extra] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))
            return false;
        if (cp >= 0x10000) {
            cp -= 0x10000;
            out.push_back(static_cast<unsigned short>(0xD800 + (cp >> 10)));
            out.push_back(static_cast<unsigned short>(0xDC00 + (cp & 0x3FF)));
        } else {
            out.push_back(static_cast<unsigned short>(cp));
        }
        i += extra + 1;
    }
    return true;
}

std::string Narrow(const wchar_t* text)
{
    std::string out;
    for (; text != nullptr && *text; ++text) {
        unsigned long cp = static_cast<unsigned long>(*text);
        if (cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))
            cp = 0xFFFD;
        if (cp < 0x80) {
            out += static_cast<char>(cp);
        } else if (cp < 0x800) {
            out += static_cast<char>(0xC0 | (cp >> 6));
            out += static_cast<char>(0x80 | (cp & 0x3F));
        } else if (cp < 0x10000) {
            out += static_cast<char>(0xE0 | (cp >> 12));
            out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (cp & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (cp >> 18));
            out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (cp & 0x3F));
        }
    }
    return out;
}

std::string WithHint(const std::string& text, const std::string& hint)
{
    if (hint.empty())
        return text;
    return text + (!text.empty() && text.back() == '.' ? " " : ". ") + hint + ".";
}

std::string Json(const std::string& text)
{
    std::string out = "\"";
    for (const char ch : text) {
        const unsigned char c = static_cast<unsigned char>(ch);
        switch (c) {
        case '"':
            out += "\\\"";
            break;
        case '\\':
            out += "\\\\";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\r':
            out += "\\r";
            break;
        case '\t':
            out += "\\t";
            break;
        default:
            // Other bytes of UTF-8 pass as they are; control characters escaped.
            out += c < 0x20 ? Printf("\\u%04x", c) : std::string(1, ch);
        }
    }
    return out + "\"";
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
