// Any UTF-8, UTF-16 or UTF-32 text (the first byte picks which): every route either refuses it
// with QRX_RuntimeError, and then all do, or converts it so that it comes back unchanged through
// the other forms. Nothing else escapes. The lossy routes take any bytes and any wide units: they
// agree with the strict ones on valid text, give valid text (U+FFFD in place of what was not) and
// keep one character per wide unit.
#include "fuzz/FuzzCheck.h"
#include "sys/Errors.h"
#include "sys/Unicode.h"

#include <algorithm>
#include <cstring>
#include <optional>

using namespace Unicode;

template <class Convert> auto Try(Convert convert) -> std::optional<decltype(convert())>
{
    try {
        return convert();
    } catch (const QRX_RuntimeError&) {
        return std::nullopt;
    }
}

bool IsScalarValue(wchar_t unit)
{
    return (unit >= 0 && unit < 0xD800) || (unit > 0xDFFF && unit <= 0x10FFFF);
}

// The lossy decoder on the bytes and the lossy encoder on the same bytes read as wide units.
void CheckLossy(const std::string& bytes)
{
    const std::wstring decoded = ToWideCharLossy(bytes);
    FUZZ_CHECK(std::all_of(decoded.begin(), decoded.end(), IsScalarValue), "decoded a unit that is not Unicode");
    const auto strict = Try([&] { return ToWideChar(bytes).str(); });
    FUZZ_CHECK(!strict || *strict == decoded, "lossy and strict decoding differ on valid UTF-8");
    FUZZ_CHECK(strict || decoded.find(L'\uFFFD') != std::wstring::npos, "bad UTF-8 decoded without U+FFFD");
    FUZZ_CHECK(ToUTF8Lossy(decoded) == ToUTF8(decoded).str(), "lossy and strict encoding differ on valid text");

    std::wstring units(bytes.size() / sizeof(wchar_t), L'\0');
    std::memcpy(&units[0], bytes.data(), units.size() * sizeof(wchar_t));
    const auto encoded = Try([&] { return ToWideChar(ToUTF8Lossy(units)).str(); });
    FUZZ_CHECK(encoded && encoded->size() == units.size(), "encoding gave bad UTF-8 or lost units");
    for (std::size_t i = 0; i < units.size(); ++i) {
        const wchar_t expected = IsScalarValue(units[i]) ? units[i] : L'\uFFFD';
        FUZZ_CHECK((*encoded)[i] == expected, "unit " + std::to_string(i) + " encoded wrongly");
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const int form = size ? data[0] % 3 : 0;
    const std::string bytes(reinterpret_cast<const char*>(data) + (size ? 1 : 0), size ? size - 1 : 0);
    UTF16String utf16((form == 1 ? bytes.size() / 2 : 0), 0);
    UTF32String utf32((form == 2 ? bytes.size() / 4 : 0), 0);
    std::memcpy(&utf16[0], bytes.data(), utf16.size() * 2);
    std::memcpy(&utf32[0], bytes.data(), utf32.size() * 4);
    // The text in UTF-8, UTF-16, UTF-32 and wide form by two routes each, from the given form.
    const auto u8 = form == 0 ? std::optional(bytes) : Try([&] {
        return form == 1 ? ToUTF8(utf16.data(), utf16.size()).str() : ToUTF8(utf32.data(), utf32.size()).str();
    });
    const auto u16 = form == 1 ? std::optional(utf16) : Try([&] {
        return form == 0 ? ToUTF16(bytes.data(), bytes.size()).str() : ToUTF16(utf32.data(), utf32.size()).str();
    });
    const auto u32 = form == 2 ? std::optional(utf32) : Try([&] {
        return form == 0 ? ToUTF32(bytes.data(), bytes.size()).str() : ToUTF32(utf16.data(), utf16.size()).str();
    });
    const auto wide = Try([&] {
        return form == 0   ? ToWideChar(bytes.data(), bytes.size()).str()
               : form == 1 ? ToWideChar(utf16.data(), utf16.size()).str()
                           : std::wstring(utf32.begin(), utf32.end());
    });
    CheckLossy(bytes);
    const bool valid = u8 && u16 && u32 && (form == 2 || wide);
    FUZZ_CHECK(valid || ((!u8 || form == 0) && (!u16 || form == 1) && (!u32 || form == 2) && (!wide || form == 2)),
               "routes disagree on form " + std::to_string(form));
    if (!valid)
        return 0;
    FUZZ_CHECK(ToUTF8(*wide).str() == *u8 && ToUTF16(*wide).str() == *u16 && ToUTF32(*wide).str() == *u32 &&
                   ToUTF16(*u8).str() == *u16 && ToUTF32(*u8).str() == *u32 &&
                   ToUTF8(u16->data(), u16->size()).str() == *u8 && ToWideChar(u8->data(), u8->size()).str() == *wide,
               "a round trip changed the text");
    return 0;
}
