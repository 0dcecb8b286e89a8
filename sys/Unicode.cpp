#include "sys/Unicode.h"

#include "sys/Errors.h"

#include <unicode/ustring.h>
#include <unicode/utypes.h>

#include <climits>

namespace Unicode {
namespace {

static_assert(sizeof(wchar_t) == 4, "wide strings hold one code point per unit");
static_assert(sizeof(UChar) == sizeof(unsigned short), "UTF-16 unit size");

struct Stage {
    int32_t measuring;
    const char* measuringText;
    int32_t converting;
    const char* convertingText;
};

constexpr Stage kUtf8ToUtf16{40583, "error measuring utf8 to utf16", 40586, "error converting utf8 to utf16"};
constexpr Stage kUtf32ToUtf16{40584, "error measuring utf32 to utf16", 40585, "error converting utf32 to utf16"};
constexpr Stage kUtf16ToUtf32{40587, "error measuring utf16 to utf32", 40588, "error converting utf16 to utf32"};
constexpr Stage kUtf16ToUtf8{40589, "error measuring utf16 to utf8", 40590, "error converting utf16 to utf8"};

// Length in ICU's terms: -1 for zero-terminated sources.
constexpr std::size_t kTerminated = static_cast<std::size_t>(-1);

int32_t IcuLength(std::size_t length, const Stage& stage)
{
    if (length == kTerminated)
        return -1;
    if (length > static_cast<std::size_t>(INT32_MAX))
        throw QRX_RuntimeError(stage.measuring, stage.measuringText);
    return static_cast<int32_t>(length);
}

// Runs one ICU conversion in two passes. `convert(dest, capacity, &length,
// &status)` wraps the ICU call; the result is sized to exactly the measured
// length. ICU's warnings (for instance "not terminated" when the buffer is
// filled exactly) count as success.
template <class Result, class Convert> Result TwoPass(const Stage& stage, Convert convert)
{
    UErrorCode status = U_ZERO_ERROR;
    int32_t length = 0;
    convert(nullptr, 0, &length, &status);
    if (U_FAILURE(status) && status != U_BUFFER_OVERFLOW_ERROR)
        throw QRX_RuntimeError(stage.measuring, stage.measuringText);
    Result result;
    if (length == 0)
        return result;
    result.resize(static_cast<std::size_t>(length));
    status = U_ZERO_ERROR;
    int32_t written = 0;
    convert(&result[0], length, &written, &status);
    if (U_FAILURE(status))
        throw QRX_RuntimeError(stage.converting, stage.convertingText);
    result.resize(static_cast<std::size_t>(written));
    return result;
}

UTF16String Utf8ToUtf16(const char* s, std::size_t length)
{
    const int32_t n = IcuLength(length, kUtf8ToUtf16);
    return TwoPass<UTF16String>(kUtf8ToUtf16, [&](unsigned short* dest, int32_t cap, int32_t* len, UErrorCode* st) {
        u_strFromUTF8(reinterpret_cast<UChar*>(dest), cap, len, s, n, st);
    });
}

UTF16String Utf32ToUtf16(const void* s, std::size_t length)
{
    const int32_t n = IcuLength(length, kUtf32ToUtf16);
    return TwoPass<UTF16String>(kUtf32ToUtf16, [&](unsigned short* dest, int32_t cap, int32_t* len, UErrorCode* st) {
        u_strFromUTF32(reinterpret_cast<UChar*>(dest), cap, len, static_cast<const UChar32*>(s), n, st);
    });
}

std::string Utf16ToUtf8(const unsigned short* s, std::size_t length)
{
    const int32_t n = IcuLength(length, kUtf16ToUtf8);
    return TwoPass<std::string>(kUtf16ToUtf8, [&](char* dest, int32_t cap, int32_t* len, UErrorCode* st) {
        u_strToUTF8(dest, cap, len, reinterpret_cast<const UChar*>(s), n, st);
    });
}

template <class Result> Result Utf16ToUtf32(const unsigned short* s, std::size_t length)
{
    static_assert(sizeof(typename Result::value_type) == sizeof(UChar32), "32-bit units");
    const int32_t n = IcuLength(length, kUtf16ToUtf32);
    return TwoPass<Result>(
        kUtf16ToUtf32, [&](typename Result::value_type* dest, int32_t cap, int32_t* len, UErrorCode* st) {
            u_strToUTF32(reinterpret_cast<UChar32*>(dest), cap, len, reinterpret_cast<const UChar*>(s), n, st);
        });
}

// The lossy routes: ICU substitutes U+FFFD for whatever it cannot convert,
// so only a text too long for ICU's lengths fails.
constexpr UChar32 kReplacement = 0xFFFD;

int32_t LossyLength(std::size_t length, const Stage& stage)
{
    if (length > static_cast<std::size_t>(INT32_MAX))
        throw QRX_RangeError(stage.measuring, stage.measuringText);
    return static_cast<int32_t>(length);
}

UTF16String Utf32ToUtf16Lossy(const wchar_t* s, std::size_t length)
{
    const int32_t n = LossyLength(length, kUtf32ToUtf16);
    return TwoPass<UTF16String>(kUtf32ToUtf16, [&](unsigned short* dest, int32_t cap, int32_t* len, UErrorCode* st) {
        u_strFromUTF32WithSub(reinterpret_cast<UChar*>(dest), cap, len, reinterpret_cast<const UChar32*>(s), n,
                              kReplacement, nullptr, st);
    });
}

std::string Utf16ToUtf8Lossy(const UTF16String& s)
{
    const int32_t n = LossyLength(s.size(), kUtf16ToUtf8);
    return TwoPass<std::string>(kUtf16ToUtf8, [&](char* dest, int32_t cap, int32_t* len, UErrorCode* st) {
        u_strToUTF8WithSub(dest, cap, len, reinterpret_cast<const UChar*>(s.data()), n, kReplacement, nullptr, st);
    });
}

UTF16String Utf8ToUtf16Lossy(const char* s, std::size_t length)
{
    const int32_t n = LossyLength(length, kUtf8ToUtf16);
    return TwoPass<UTF16String>(kUtf8ToUtf16, [&](unsigned short* dest, int32_t cap, int32_t* len, UErrorCode* st) {
        u_strFromUTF8WithSub(reinterpret_cast<UChar*>(dest), cap, len, s, n, kReplacement, nullptr, st);
    });
}

std::wstring Utf16ToWideLossy(const UTF16String& s)
{
    const int32_t n = LossyLength(s.size(), kUtf16ToUtf32);
    return TwoPass<std::wstring>(kUtf16ToUtf32, [&](wchar_t* dest, int32_t cap, int32_t* len, UErrorCode* st) {
        u_strToUTF32WithSub(reinterpret_cast<UChar32*>(dest), cap, len, reinterpret_cast<const UChar*>(s.data()), n,
                            kReplacement, nullptr, st);
    });
}

template <class Unit> std::size_t TerminatedLength(const Unit* s)
{
    std::size_t n = 0;
    while (s[n] != 0)
        ++n;
    return n;
}

} // namespace

// --- ToUTF8 ---
const std::string& ToUTF8::operator()(const std::wstring& s)
{
    UTF16String u16 = Utf32ToUtf16(s.data(), s.size());
    m_result = Utf16ToUtf8(u16.data(), u16.size());
    return m_result;
}
const std::string& ToUTF8::operator()(const wchar_t* s)
{
    return (*this)(reinterpret_cast<const unsigned int*>(s));
}
const std::string& ToUTF8::operator()(const unsigned short* s)
{
    return (*this)(s, TerminatedLength(s));
}
const std::string& ToUTF8::operator()(const unsigned short* s, std::size_t length)
{
    m_result = Utf16ToUtf8(s, length);
    return m_result;
}
const std::string& ToUTF8::operator()(const unsigned int* s)
{
    return (*this)(s, TerminatedLength(s));
}
const std::string& ToUTF8::operator()(const unsigned int* s, std::size_t length)
{
    UTF16String u16 = Utf32ToUtf16(s, length);
    m_result = Utf16ToUtf8(u16.data(), u16.size());
    return m_result;
}

// --- ToUTF16 ---
const UTF16String& ToUTF16::operator()(const char* s)
{
    return (*this)(s, TerminatedLength(s));
}
const UTF16String& ToUTF16::operator()(const char* s, std::size_t length)
{
    m_result = Utf8ToUtf16(s, length);
    return m_result;
}
const UTF16String& ToUTF16::operator()(const std::string& s)
{
    return (*this)(s.data(), s.size());
}
const UTF16String& ToUTF16::operator()(const std::wstring& s)
{
    m_result = Utf32ToUtf16(s.data(), s.size());
    return m_result;
}
const UTF16String& ToUTF16::operator()(const unsigned int* s)
{
    return (*this)(s, TerminatedLength(s));
}
const UTF16String& ToUTF16::operator()(const unsigned int* s, std::size_t length)
{
    m_result = Utf32ToUtf16(s, length);
    return m_result;
}
const UTF16String& ToUTF16::operator()(const unsigned short* s)
{
    return (*this)(s, TerminatedLength(s));
}
const UTF16String& ToUTF16::operator()(const unsigned short* s, std::size_t length)
{
    m_result.assign(s, length);
    return m_result;
}

// --- ToUTF32 ---
const UTF32String& ToUTF32::operator()(const char* s)
{
    return (*this)(s, TerminatedLength(s));
}
const UTF32String& ToUTF32::operator()(const char* s, std::size_t length)
{
    UTF16String u16 = Utf8ToUtf16(s, length);
    m_result = Utf16ToUtf32<UTF32String>(u16.data(), u16.size());
    return m_result;
}
const UTF32String& ToUTF32::operator()(const std::string& s)
{
    return (*this)(s.data(), s.size());
}
const UTF32String& ToUTF32::operator()(const unsigned short* s)
{
    return (*this)(s, TerminatedLength(s));
}
const UTF32String& ToUTF32::operator()(const unsigned short* s, std::size_t length)
{
    m_result = Utf16ToUtf32<UTF32String>(s, length);
    return m_result;
}
const UTF32String& ToUTF32::operator()(const std::wstring& s)
{
    UTF16String u16 = Utf32ToUtf16(s.data(), s.size());
    m_result = Utf16ToUtf32<UTF32String>(u16.data(), u16.size());
    return m_result;
}

// --- ToWideChar ---
const std::wstring& ToWideChar::operator()(const char* s)
{
    return (*this)(s, TerminatedLength(s));
}
const std::wstring& ToWideChar::operator()(const char* s, std::size_t length)
{
    UTF16String u16 = Utf8ToUtf16(s, length);
    m_result = Utf16ToUtf32<std::wstring>(u16.data(), u16.size());
    return m_result;
}
const std::wstring& ToWideChar::operator()(const std::string& s)
{
    return (*this)(s.data(), s.size());
}
const std::wstring& ToWideChar::operator()(const unsigned short* s)
{
    return (*this)(s, TerminatedLength(s));
}
const std::wstring& ToWideChar::operator()(const unsigned short* s, std::size_t length)
{
    m_result = Utf16ToUtf32<std::wstring>(s, length);
    return m_result;
}
const std::wstring& ToWideChar::operator()(const unsigned int* s)
{
    return (*this)(s, TerminatedLength(s));
}
const std::wstring& ToWideChar::operator()(const unsigned int* s, std::size_t length)
{
    UTF16String u16 = Utf32ToUtf16(s, length);
    m_result = Utf16ToUtf32<std::wstring>(u16.data(), u16.size());
    return m_result;
}

// --- Lossy ---
std::string ToUTF8Lossy(std::wstring_view text)
{
    return Utf16ToUtf8Lossy(Utf32ToUtf16Lossy(text.data(), text.size()));
}
std::wstring ToWideCharLossy(std::string_view text)
{
    return Utf16ToWideLossy(Utf8ToUtf16Lossy(text.data(), text.size()));
}

} // namespace Unicode
