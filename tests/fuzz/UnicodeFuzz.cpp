// Any UTF-8, UTF-16 or UTF-32 text (first byte picks which): every route either converts it so
// that it comes back unchanged through every other form, or refuses it with QRX_RuntimeError, and
// all routes agree on which. Nothing else escapes.
#include "sys/Errors.h"
#include "sys/Unicode.h"
#include "fuzz/FuzzCheck.h"

#include <cstring>
#include <functional>
#include <string>

using namespace Unicode;

// The conversion's result, or nothing when it refused the text.
template <class Result>
bool Try(const std::function<Result()>& convert, Result& out)
{
    try {
        out = convert();
        return true;
    } catch (const QRX_RuntimeError&) {
        return false;
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0)
        return 0;
    const int form = data[0] % 3;
    const std::string bytes(reinterpret_cast<const char*>(data + 1), size - 1);
    std::wstring wide;
    bool accepted = false;
    if (form == 0) {
        accepted = Try<std::wstring>([&] { return ToWideChar(bytes.data(), bytes.size()).str(); }, wide);
        UTF16String utf16;
        FUZZ_CHECK(accepted == Try<UTF16String>([&] { return ToUTF16(bytes.data(), bytes.size()).str(); }, utf16), "UTF-8 routes disagree");
        FUZZ_CHECK(!accepted || ToUTF8(utf16.data(), utf16.size()).str() == bytes, "UTF-8 through UTF-16 changed");
        FUZZ_CHECK(!accepted || ToUTF8(wide).str() == bytes, "UTF-8 through wide changed");
    } else if (form == 1) {
        UTF16String units(bytes.size() / 2, 0);
        std::memcpy(&units[0], bytes.data(), units.size() * 2);
        accepted = Try<std::wstring>([&] { return ToWideChar(units.data(), units.size()).str(); }, wide);
        std::string utf8;
        FUZZ_CHECK(accepted == Try<std::string>([&] { return ToUTF8(units.data(), units.size()).str(); }, utf8), "UTF-16 routes disagree");
        FUZZ_CHECK(!accepted || (ToUTF16(utf8).str() == units && ToUTF16(wide).str() == units), "UTF-16 round trip changed");
    } else {
        UTF32String units(bytes.size() / 4, 0);
        std::memcpy(&units[0], bytes.data(), units.size() * 4);
        std::string utf8;
        accepted = Try<std::string>([&] { return ToUTF8(units.data(), units.size()).str(); }, utf8);
        UTF16String utf16;
        FUZZ_CHECK(accepted == Try<UTF16String>([&] { return ToUTF16(units.data(), units.size()).str(); }, utf16), "UTF-32 routes disagree");
        FUZZ_CHECK(!accepted || (ToUTF32(utf8).str() == units && ToUTF32(utf16.data(), utf16.size()).str() == units), "UTF-32 round trip changed");
        wide.assign(units.begin(), units.end());
    }
    if (accepted) {  // the wide form goes everywhere and back
        FUZZ_CHECK(ToWideChar(ToUTF8(wide).str().c_str(), ToUTF8(wide).size()).str() == wide, "wide through UTF-8 changed");
        FUZZ_CHECK(ToWideChar(ToUTF32(wide).str().data(), ToUTF32(wide).size()).str() == wide, "wide through UTF-32 changed");
    }
    return 0;
}
