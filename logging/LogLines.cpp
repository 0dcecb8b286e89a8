#include "logging/LogLines.h"

#include "sys/Errors.h"
#include "sys/Unicode.h"

#include <algorithm>
#include <cstddef>

namespace OrvaneInternal {

namespace {

bool IsAscii(std::string_view text)
{
    for (char c : text) {
        if (static_cast<unsigned char>(c) >= 0x80)
            return false;
    }
    return true;
}

bool IsWidenedByte(wchar_t unit)
{
    return unit >= -128 && unit < 0;
}

std::wstring WidenBytes(std::string_view line)
{
    std::wstring out;
    out.reserve(line.size());
    for (char c : line)
        out += static_cast<wchar_t>(static_cast<signed char>(c));
    return out;
}

// Calls `emit(line)` for every line of `text`.
template <class Char, class Emit> void ForEachLine(std::basic_string_view<Char> text, Emit emit)
{
    std::size_t start = 0;
    while (start < text.size()) {
        const std::size_t newline = text.find(Char('\n'), start);
        if (newline == std::basic_string_view<Char>::npos) {
            emit(text.substr(start));
            return;
        }
        emit(text.substr(start, newline - start));
        start = newline + 1;
    }
}

// Widens in place: appending from a range of another character type would
// first build a temporary wide string, one more allocation per line.
template <class Char> void AppendWidened(std::wstring& out, std::basic_string_view<Char> text)
{
    const std::size_t at = out.size();
    out.resize(at + text.size());
    std::copy(text.begin(), text.end(), out.begin() + static_cast<std::ptrdiff_t>(at));
}

// Narrow text must be ASCII here and is widened unit by unit.
template <class Char> std::wstring Lines(std::string_view header, std::basic_string_view<Char> text)
{
    std::wstring out;
    out.reserve(header.size() + text.size() + 1);
    ForEachLine<Char>(text, [&](std::basic_string_view<Char> line) {
        AppendWidened<char>(out, header);
        AppendWidened<Char>(out, line);
        out += L'\n';
    });
    return out;
}

} // namespace

std::wstring LinesOf(std::string_view header, std::wstring_view message)
{
    return Lines<wchar_t>(header, message);
}

std::wstring LinesOf(std::string_view header, const std::string& message)
{
    if (IsAscii(message))
        return Lines<char>(header, std::string_view(message));
    // Converting the whole message at once is the common case; only a message
    // with a line that is not UTF-8 is converted line by line.
    try {
        return Lines<wchar_t>(header, Unicode::ToWideChar(message).str());
    } catch (const QRX_RuntimeError&) {
    }
    std::wstring out;
    Unicode::ToWideChar convert;
    ForEachLine<char>(std::string_view(message), [&](std::string_view line) {
        AppendWidened<char>(out, header);
        try {
            out += convert(line.data(), line.size());
        } catch (const QRX_RuntimeError&) {
            out += WidenBytes(line);
        }
        out += L'\n';
    });
    return out;
}

std::string BytesOf(std::wstring_view lines)
{
    if (std::all_of(lines.begin(), lines.end(), [](wchar_t c) { return c >= 0 && c < 0x80; }))
        return std::string(lines.begin(), lines.end()); // most log text; no converter needed
    std::string out;
    out.reserve(lines.size());
    std::size_t start = 0;
    while (start < lines.size()) {
        if (IsWidenedByte(lines[start])) {
            out += static_cast<char>(lines[start]);
            ++start;
            continue;
        }
        std::size_t end = start;
        while (end < lines.size() && !IsWidenedByte(lines[end]))
            ++end;
        out += Unicode::ToUTF8Lossy(lines.substr(start, end - start));
        start = end;
    }
    return out;
}

} // namespace OrvaneInternal
