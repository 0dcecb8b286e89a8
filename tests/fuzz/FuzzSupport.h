// Helpers shared by the libFuzzer harnesses: a check that reports and aborts
// (libFuzzer then keeps the input as a crash), and a strict Unicode codec
// written independently of the library's converters, used as their oracle.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

namespace OrvaneFuzz {

// Run before a failed check aborts, for a harness that must tidy up (the
// abort skips atexit handlers).
inline void (*g_beforeAbort)() = nullptr;

[[noreturn]] inline void Fail(const char* file, int line, const std::string& what)
{
    std::fprintf(stderr, "\n%s:%d: fuzz check failed: %s\n", file, line, what.c_str());
    std::fflush(stderr);
    if (g_beforeAbort != nullptr)
        g_beforeAbort();
    std::abort();
}

#define FUZZ_CHECK(condition, what)                                                                                 \
    do {                                                                                                            \
        if (!(condition))                                                                                           \
            ::OrvaneFuzz::Fail(__FILE__, __LINE__, std::string(#condition) + ": " + (what));                        \
    } while (0)

using CodePoints = std::vector<uint32_t>;

inline bool IsScalarValue(uint32_t c)
{
    return c < 0xD800 || (c > 0xDFFF && c <= 0x10FFFF);
}

// Well-formed UTF-8 as RFC 3629 defines it: shortest forms only, no
// surrogates, nothing above U+10FFFF. Empty when the bytes are ill-formed.
inline std::optional<CodePoints> DecodeUtf8(const std::string& bytes)
{
    CodePoints out;
    size_t i = 0;
    while (i < bytes.size()) {
        const uint8_t lead = static_cast<uint8_t>(bytes[i]);
        size_t extra;
        uint32_t c;
        uint32_t minimum;
        if (lead < 0x80) {
            out.push_back(lead);
            ++i;
            continue;
        } else if (lead >= 0xC2 && lead <= 0xDF) {
            extra = 1, c = lead & 0x1F, minimum = 0x80;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            extra = 2, c = lead & 0x0F, minimum = 0x800;
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            extra = 3, c = lead & 0x07, minimum = 0x10000;
        } else {
            return std::nullopt;
        }
        if (bytes.size() - i - 1 < extra)
            return std::nullopt;
        for (size_t k = 1; k <= extra; ++k) {
            const uint8_t next = static_cast<uint8_t>(bytes[i + k]);
            if ((next & 0xC0) != 0x80)
                return std::nullopt;
            c = (c << 6) | (next & 0x3F);
        }
        if (c < minimum || !IsScalarValue(c))
            return std::nullopt;
        out.push_back(c);
        i += extra + 1;
    }
    return out;
}

// Empty when a surrogate is unpaired.
inline std::optional<CodePoints> DecodeUtf16(const std::basic_string<unsigned short>& units)
{
    CodePoints out;
    for (size_t i = 0; i < units.size(); ++i) {
        const uint32_t u = units[i];
        if (u >= 0xD800 && u <= 0xDBFF) {
            if (i + 1 == units.size() || units[i + 1] < 0xDC00 || units[i + 1] > 0xDFFF)
                return std::nullopt;
            out.push_back(0x10000 + ((u - 0xD800) << 10) + (units[i + 1] - 0xDC00u));
            ++i;
        } else if (u >= 0xDC00 && u <= 0xDFFF) {
            return std::nullopt;
        } else {
            out.push_back(u);
        }
    }
    return out;
}

inline std::string EncodeUtf8(const CodePoints& text)
{
    std::string out;
    for (uint32_t c : text) {
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else if (c < 0x800) {
            out += static_cast<char>(0xC0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            out += static_cast<char>(0xE0 | (c >> 12));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (c >> 18));
            out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return out;
}

inline std::basic_string<unsigned short> EncodeUtf16(const CodePoints& text)
{
    std::basic_string<unsigned short> out;
    for (uint32_t c : text) {
        if (c < 0x10000) {
            out += static_cast<unsigned short>(c);
        } else {
            out += static_cast<unsigned short>(0xD800 + ((c - 0x10000) >> 10));
            out += static_cast<unsigned short>(0xDC00 + ((c - 0x10000) & 0x3FF));
        }
    }
    return out;
}

inline std::wstring ToWide(const CodePoints& text)
{
    return std::wstring(text.begin(), text.end());
}

}  // namespace OrvaneFuzz
