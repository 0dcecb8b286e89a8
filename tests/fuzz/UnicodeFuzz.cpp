// The text converters against an independent codec. The first byte chooses
// how the rest is read: as UTF-8 bytes, as UTF-16 units or as UTF-32 units
// (little-endian, any value). Well-formed text must come out the same by every
// route between UTF-8, UTF-16, UTF-32 and wide strings; ill-formed text must
// fail with QRX_RuntimeError carrying the number and text of the stage that
// meets the bad unit first. Any other outcome aborts.
#include "sys/Errors.h"
#include "sys/Unicode.h"

#include "fuzz/FuzzSupport.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>

using namespace OrvaneFuzz;
using Unicode::ToUTF16;
using Unicode::ToUTF32;
using Unicode::ToUTF8;
using Unicode::ToWideChar;
using Unicode::UTF16String;
using Unicode::UTF32String;

namespace {

struct Stage {
    const char* name;
    int32_t measuring;
    const char* measuringText;
    int32_t converting;
    const char* convertingText;
};

const Stage kUtf8ToUtf16{"utf8->utf16", 40583, "error measuring utf8 to utf16", 40586,
                         "error converting utf8 to utf16"};
const Stage kUtf32ToUtf16{"utf32->utf16", 40584, "error measuring utf32 to utf16", 40585,
                          "error converting utf32 to utf16"};
const Stage kUtf16ToUtf32{"utf16->utf32", 40587, "error measuring utf16 to utf32", 40588,
                          "error converting utf16 to utf32"};
const Stage kUtf16ToUtf8{"utf16->utf8", 40589, "error measuring utf16 to utf8", 40590,
                         "error converting utf16 to utf8"};

// The converters keep their result between calls; reusing one object per form
// across inputs checks that every call replaces what the last one left.
ToUTF8 g_toUtf8;
ToUTF16 g_toUtf16;
ToUTF32 g_toUtf32;
ToWideChar g_toWide;

template <class String>
std::string Show(const String& units)
{
    std::string out;
    char piece[16];
    for (auto unit : units) {
        std::snprintf(piece, sizeof piece, "%X ", static_cast<unsigned>(static_cast<uint32_t>(unit)));
        out += piece;
    }
    return "[" + out + "]";
}

// `convert` must throw QRX_RuntimeError of `stage`. Only the measuring number
// is expected in practice (the measuring pass sees every bad unit), but the
// converting number is the same stage's documented failure.
void ExpectFailure(const Stage& stage, const char* route, const std::function<void()>& convert)
{
    try {
        convert();
    } catch (const QRX_RuntimeError& e) {
        const bool measuring = e.GetStatus() == stage.measuring && std::strcmp(e.what(), stage.measuringText) == 0;
        const bool converting = e.GetStatus() == stage.converting && std::strcmp(e.what(), stage.convertingText) == 0;
        FUZZ_CHECK(measuring || converting, std::string(route) + " failed as " + std::to_string(e.GetStatus()) +
                                                " \"" + e.what() + "\", expected stage " + stage.name);
        return;
    }
    FUZZ_CHECK(false, std::string(route) + " accepted ill-formed text, expected stage " + stage.name);
}

template <class Unit>
size_t TerminatedLength(const std::basic_string<Unit>& text)
{
    size_t n = 0;
    while (n < text.size() && text[n] != 0)
        ++n;
    return n;
}

CodePoints UpToFirstZero(const CodePoints& text)
{
    CodePoints out;
    for (uint32_t c : text) {
        if (c == 0)
            break;
        out.push_back(c);
    }
    return out;
}

// Every route out of well-formed text given as code points.
void CheckWellFormed(const CodePoints& text)
{
    const std::string utf8 = EncodeUtf8(text);
    const UTF16String utf16 = EncodeUtf16(text);
    const UTF32String utf32(text.begin(), text.end());
    const std::wstring wide = ToWide(text);
    const std::string shown = Show(text);

    FUZZ_CHECK(ToUTF8(wide).str() == utf8, "wide->utf8 " + shown);
    FUZZ_CHECK(ToUTF8(utf16.data(), utf16.size()).str() == utf8, "utf16->utf8 " + shown);
    FUZZ_CHECK(ToUTF8(utf32.data(), utf32.size()).str() == utf8, "utf32->utf8 " + shown);
    FUZZ_CHECK(g_toUtf8(wide) == utf8, "reused wide->utf8 " + shown);

    FUZZ_CHECK(ToUTF16(utf8).str() == utf16, "utf8->utf16 " + shown);
    FUZZ_CHECK(ToUTF16(utf8.data(), utf8.size()).str() == utf16, "utf8 (length)->utf16 " + shown);
    FUZZ_CHECK(ToUTF16(wide).str() == utf16, "wide->utf16 " + shown);
    FUZZ_CHECK(ToUTF16(utf32.data(), utf32.size()).str() == utf16, "utf32->utf16 " + shown);
    FUZZ_CHECK(ToUTF16(utf16.data(), utf16.size()).str() == utf16, "utf16 copy " + shown);
    FUZZ_CHECK(g_toUtf16(utf8) == utf16, "reused utf8->utf16 " + shown);

    FUZZ_CHECK(ToUTF32(utf8).str() == utf32, "utf8->utf32 " + shown);
    FUZZ_CHECK(ToUTF32(utf16.data(), utf16.size()).str() == utf32, "utf16->utf32 " + shown);
    FUZZ_CHECK(ToUTF32(wide).str() == utf32, "wide->utf32 " + shown);
    FUZZ_CHECK(g_toUtf32(utf16.data(), utf16.size()) == utf32, "reused utf16->utf32 " + shown);

    const ToWideChar fromUtf8(utf8);
    FUZZ_CHECK(fromUtf8.str() == wide && fromUtf8.size() == wide.size(), "utf8->wide " + shown);
    FUZZ_CHECK(ToWideChar(utf8.data(), utf8.size()).str() == wide, "utf8 (length)->wide " + shown);
    FUZZ_CHECK(ToWideChar(utf16.data(), utf16.size()).str() == wide, "utf16->wide " + shown);
    FUZZ_CHECK(ToWideChar(utf32.data(), utf32.size()).str() == wide, "utf32->wide " + shown);
    FUZZ_CHECK(g_toWide(utf8) == wide, "reused utf8->wide " + shown);

    // Zero-terminated sources end at their first zero unit.
    const CodePoints head = UpToFirstZero(text);
    const std::string headUtf8 = EncodeUtf8(head);
    const std::wstring headWide = ToWide(head);
    FUZZ_CHECK(ToWideChar(utf8.c_str()).str() == headWide, "utf8 (terminated)->wide " + shown);
    FUZZ_CHECK(ToUTF8(wide.c_str()).str() == headUtf8, "wide (terminated)->utf8 " + shown);
    FUZZ_CHECK(ToUTF8(utf16.c_str()).str() == headUtf8, "utf16 (terminated)->utf8 " + shown);
    FUZZ_CHECK(ToUTF8(utf32.c_str()).str() == headUtf8, "utf32 (terminated)->utf8 " + shown);
    FUZZ_CHECK(ToUTF16(utf32.c_str()).str() == EncodeUtf16(head), "utf32 (terminated)->utf16 " + shown);
    FUZZ_CHECK(ToUTF32(utf16.c_str()).size() == head.size(), "utf16 (terminated)->utf32 " + shown);
    FUZZ_CHECK(ToWideChar(utf16.c_str()).str() == headWide, "utf16 (terminated)->wide " + shown);
    FUZZ_CHECK(ToWideChar(utf32.c_str()).str() == headWide, "utf32 (terminated)->wide " + shown);
}

void CheckUtf8(const std::string& bytes)
{
    if (const auto text = DecodeUtf8(bytes)) {
        CheckWellFormed(*text);
        return;
    }
    ExpectFailure(kUtf8ToUtf16, "utf8->wide", [&] { ToWideChar{bytes}; });
    ExpectFailure(kUtf8ToUtf16, "utf8 (length)->wide", [&] { ToWideChar(bytes.data(), bytes.size()); });
    ExpectFailure(kUtf8ToUtf16, "utf8->utf16", [&] { ToUTF16{bytes}; });
    ExpectFailure(kUtf8ToUtf16, "utf8->utf32", [&] { ToUTF32{bytes}; });
    ExpectFailure(kUtf8ToUtf16, "reused utf8->wide", [&] { g_toWide(bytes); });
}

void CheckUtf16(const UTF16String& units)
{
    if (const auto text = DecodeUtf16(units)) {
        CheckWellFormed(*text);
        return;
    }
    ExpectFailure(kUtf16ToUtf8, "utf16->utf8", [&] { ToUTF8(units.data(), units.size()); });
    ExpectFailure(kUtf16ToUtf32, "utf16->utf32", [&] { ToUTF32(units.data(), units.size()); });
    ExpectFailure(kUtf16ToUtf32, "utf16->wide", [&] { ToWideChar(units.data(), units.size()); });
    ExpectFailure(kUtf16ToUtf8, "reused utf16->utf8", [&] { g_toUtf8(units.data(), units.size()); });
    // UTF-16 to UTF-16 is a copy and checks nothing.
    FUZZ_CHECK(ToUTF16(units.data(), units.size()).str() == units, "utf16 copy " + Show(units));
}

void CheckUtf32(const UTF32String& units)
{
    bool wellFormed = true;
    for (unsigned int unit : units)
        wellFormed = wellFormed && IsScalarValue(unit);
    if (wellFormed) {
        CheckWellFormed(CodePoints(units.begin(), units.end()));
        return;
    }
    const std::wstring wide(units.begin(), units.end());
    ExpectFailure(kUtf32ToUtf16, "utf32->utf8", [&] { ToUTF8(units.data(), units.size()); });
    ExpectFailure(kUtf32ToUtf16, "utf32->utf16", [&] { ToUTF16(units.data(), units.size()); });
    ExpectFailure(kUtf32ToUtf16, "utf32->wide", [&] { ToWideChar(units.data(), units.size()); });
    ExpectFailure(kUtf32ToUtf16, "wide->utf8", [&] { ToUTF8{wide}; });
    ExpectFailure(kUtf32ToUtf16, "wide->utf16", [&] { ToUTF16{wide}; });
    ExpectFailure(kUtf32ToUtf16, "wide->utf32", [&] { ToUTF32{wide}; });
    ExpectFailure(kUtf32ToUtf16, "reused wide->utf8", [&] { g_toUtf8(wide); });
    // Terminated sources see only the units before the first zero.
    const size_t head = TerminatedLength(units);
    bool headWellFormed = true;
    for (size_t i = 0; i < head; ++i)
        headWellFormed = headWellFormed && IsScalarValue(units[i]);
    if (!headWellFormed) {
        ExpectFailure(kUtf32ToUtf16, "wide (terminated)->utf8", [&] { ToUTF8(wide.c_str()); });
    } else {
        const std::string expected = EncodeUtf8(CodePoints(units.begin(), units.begin() + head));
        FUZZ_CHECK(ToUTF8(wide.c_str()).str() == expected, "wide (terminated)->utf8 " + Show(units));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0)
        return 0;
    const uint8_t mode = data[0] % 3;
    ++data;
    --size;
    try {
        if (mode == 0) {
            CheckUtf8(std::string(reinterpret_cast<const char*>(data), size));
        } else if (mode == 1) {
            UTF16String units(size / 2, 0);
            for (size_t i = 0; i < units.size(); ++i)
                units[i] = static_cast<unsigned short>(data[2 * i] | (data[2 * i + 1] << 8));
            CheckUtf16(units);
        } else {
            UTF32String units(size / 4, 0);
            for (size_t i = 0; i < units.size(); ++i) {
                units[i] = static_cast<unsigned int>(data[4 * i]) | (static_cast<unsigned int>(data[4 * i + 1]) << 8) |
                           (static_cast<unsigned int>(data[4 * i + 2]) << 16) |
                           (static_cast<unsigned int>(data[4 * i + 3]) << 24);
            }
            CheckUtf32(units);
        }
    } catch (const QRX_RuntimeError& e) {
        FUZZ_CHECK(false, "unexpected QRX_RuntimeError " + std::to_string(e.GetStatus()) + " \"" + e.what() + "\"");
    }
    // Anything else that escapes is uncaught and aborts, which libFuzzer reports.
    return 0;
}
