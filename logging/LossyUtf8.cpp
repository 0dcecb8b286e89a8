#include "logging/LossyUtf8.h"

#include "sys/Errors.h"
#include "sys/Unicode.h"

#include <algorithm>
#include <cstdint>

namespace OrvaneInternal {

namespace {

bool IsScalarValue(wchar_t unit)
{
    const int32_t value = static_cast<int32_t>(unit);
    return (value >= 0 && value < 0xD800) || (value > 0xDFFF && value <= 0x10FFFF);
}

std::string EncodeUtf8Lossy(std::wstring_view text)
{
    std::string out;
    out.reserve(text.size());
    Unicode::ToUTF8 convert;
    std::size_t runStart = 0;
    auto flushRun = [&](std::size_t end) {
        if (end > runStart)
            out += convert(std::wstring(text.substr(runStart, end - runStart)));
    };
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (IsScalarValue(text[i]))
            continue;
        flushRun(i);
        runStart = i + 1;
        const int32_t value = static_cast<int32_t>(text[i]);
        if (value >= -128 && value < 0)
            out += static_cast<char>(value);
        else
            out += "\xEF\xBF\xBD";
    }
    flushRun(text.size());
    return out;
}

} // namespace

std::string EncodeUtf8(const std::wstring& text)
{
    if (std::all_of(text.begin(), text.end(), [](wchar_t c) { return c >= 0 && c < 0x80; }))
        return std::string(text.begin(), text.end()); // most log text; no converter needed
    try {
        return Unicode::ToUTF8(text).str();
    } catch (const QRX_RuntimeError&) {
        return EncodeUtf8Lossy(text);
    }
}

std::wstring WidenBytes(std::string_view line)
{
    std::wstring out;
    out.reserve(line.size());
    for (char c : line)
        out += static_cast<wchar_t>(static_cast<signed char>(c));
    return out;
}

bool IsAscii(std::string_view text)
{
    for (char c : text) {
        if (static_cast<unsigned char>(c) >= 0x80)
            return false;
    }
    return true;
}

} // namespace OrvaneInternal
