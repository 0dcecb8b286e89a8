// Any UTF-8, UTF-16 or UTF-32 text (the first byte picks which): every route either refuses it
// with QRX_RuntimeError, and then all do, or converts it so that it comes back unchanged through
// the other forms. Nothing else escapes.
#include "fuzz/FuzzCheck.h"
#include "sys/Errors.h"
#include "sys/Unicode.h"

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
