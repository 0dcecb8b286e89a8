// Converters between UTF-8, UTF-16, UTF-32 and wide strings (32-bit wchar_t,
// one code point each). Every conversion goes through UTF-16 with ICU, in two
// passes (measure, then convert), and never substitutes a replacement
// character: ill-formed input throws QRX_RuntimeError with the number of the
// stage that rejected it:
//
//   stage             measuring  converting
//   UTF-8  -> UTF-16  40583      40586
//   UTF-32 -> UTF-16  40584      40585
//   UTF-16 -> UTF-32  40587      40588
//   UTF-16 -> UTF-8   40589      40590
//
// Each class holds its result and is used as a temporary
// (std::string s = Unicode::ToUTF8(w);) or as a reusable object (conv(w)).
// Length arguments count source units; without one the source ends at its
// first zero unit.
//
// ToUTF8Lossy and ToWideCharLossy are for text that must be shown whatever it
// holds (log lines, a server's reply): every unit or byte sequence that is
// not valid Unicode becomes U+FFFD and they never throw a conversion error.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Unicode {

using UTF16String = std::basic_string<unsigned short>;
using UTF32String = std::basic_string<unsigned int>;

template <class String> class Converted {
  public:
    using value_type = typename String::value_type;

    const String& str() const { return m_result; }
    operator const String&() const { return m_result; }
    const value_type* c_str() const { return m_result.c_str(); }
    operator const value_type*() const { return m_result.c_str(); }
    typename String::const_iterator begin() const { return m_result.begin(); }
    typename String::const_iterator end() const { return m_result.end(); }
    std::size_t size() const { return m_result.size(); }

  protected:
    String m_result;
};

class ToUTF8 : public Converted<std::string> {
  public:
    ToUTF8() = default;
    explicit ToUTF8(const std::wstring& s) { (*this)(s); }
    explicit ToUTF8(const wchar_t* s) { (*this)(s); }
    explicit ToUTF8(const unsigned short* s) { (*this)(s); }
    ToUTF8(const unsigned short* s, std::size_t length) { (*this)(s, length); }
    explicit ToUTF8(const unsigned int* s) { (*this)(s); }
    ToUTF8(const unsigned int* s, std::size_t length) { (*this)(s, length); }

    const std::string& operator()(const std::wstring& s);
    const std::string& operator()(const wchar_t* s);
    const std::string& operator()(const unsigned short* s);
    const std::string& operator()(const unsigned short* s, std::size_t length);
    const std::string& operator()(const unsigned int* s);
    const std::string& operator()(const unsigned int* s, std::size_t length);
};

class ToUTF16 : public Converted<UTF16String> {
  public:
    ToUTF16() = default;
    explicit ToUTF16(const char* s) { (*this)(s); }
    ToUTF16(const char* s, std::size_t length) { (*this)(s, length); }
    explicit ToUTF16(const std::string& s) { (*this)(s); }
    explicit ToUTF16(const std::wstring& s) { (*this)(s); }
    explicit ToUTF16(const unsigned int* s) { (*this)(s); }
    ToUTF16(const unsigned int* s, std::size_t length) { (*this)(s, length); }
    explicit ToUTF16(const unsigned short* s) { (*this)(s); }
    ToUTF16(const unsigned short* s, std::size_t length) { (*this)(s, length); }

    const UTF16String& operator()(const char* s);
    const UTF16String& operator()(const char* s, std::size_t length);
    const UTF16String& operator()(const std::string& s);
    const UTF16String& operator()(const std::wstring& s);
    const UTF16String& operator()(const unsigned int* s);
    const UTF16String& operator()(const unsigned int* s, std::size_t length);
    const UTF16String& operator()(const unsigned short* s);
    const UTF16String& operator()(const unsigned short* s, std::size_t length);
};

class ToUTF32 : public Converted<UTF32String> {
  public:
    ToUTF32() = default;
    explicit ToUTF32(const char* s) { (*this)(s); }
    ToUTF32(const char* s, std::size_t length) { (*this)(s, length); }
    explicit ToUTF32(const std::string& s) { (*this)(s); }
    explicit ToUTF32(const unsigned short* s) { (*this)(s); }
    ToUTF32(const unsigned short* s, std::size_t length) { (*this)(s, length); }
    explicit ToUTF32(const std::wstring& s) { (*this)(s); }

    const UTF32String& operator()(const char* s);
    const UTF32String& operator()(const char* s, std::size_t length);
    const UTF32String& operator()(const std::string& s);
    const UTF32String& operator()(const unsigned short* s);
    const UTF32String& operator()(const unsigned short* s, std::size_t length);
    const UTF32String& operator()(const std::wstring& s);
};

class ToWideChar : public Converted<std::wstring> {
  public:
    ToWideChar() = default;
    explicit ToWideChar(const char* s) { (*this)(s); }
    ToWideChar(const char* s, std::size_t length) { (*this)(s, length); }
    explicit ToWideChar(const std::string& s) { (*this)(s); }
    explicit ToWideChar(const unsigned short* s) { (*this)(s); }
    ToWideChar(const unsigned short* s, std::size_t length) { (*this)(s, length); }
    explicit ToWideChar(const unsigned int* s) { (*this)(s); }
    ToWideChar(const unsigned int* s, std::size_t length) { (*this)(s, length); }

    const std::wstring& operator()(const char* s);
    const std::wstring& operator()(const char* s, std::size_t length);
    const std::wstring& operator()(const std::string& s);
    const std::wstring& operator()(const unsigned short* s);
    const std::wstring& operator()(const unsigned short* s, std::size_t length);
    const std::wstring& operator()(const unsigned int* s);
    const std::wstring& operator()(const unsigned int* s, std::size_t length);
};

// Wide units that are not Unicode scalar values (surrogates, values above
// U+10FFFF, negative values) become U+FFFD. Throws QRX_RangeError only for a
// text longer than ICU can take (2^31 units).
std::string ToUTF8Lossy(std::wstring_view text);
// Ill-formed UTF-8 becomes U+FFFD, one for each maximal ill-formed
// subsequence. Throws QRX_RangeError only for a text of 2^31 bytes or more.
std::wstring ToWideCharLossy(std::string_view text);

} // namespace Unicode
