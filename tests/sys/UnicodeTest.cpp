#include "sys/Errors.h"
#include "sys/StringUtils.h"
#include "sys/Unicode.h"

#include <gtest/gtest.h>

#include <functional>

using Unicode::ToUTF16;
using Unicode::ToUTF32;
using Unicode::ToUTF8;
using Unicode::ToWideChar;
using Unicode::UTF16String;
using Unicode::UTF32String;

namespace {

// "aé€😀": one, two, three and four UTF-8 bytes; U+1F600 needs a surrogate pair.
const std::string kUtf8 = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80";
const std::wstring kWide = L"a\u00E9\u20AC\U0001F600";
const UTF16String kUtf16 = {0x61, 0xE9, 0x20AC, 0xD83D, 0xDE00};
const UTF32String kUtf32 = {0x61, 0xE9, 0x20AC, 0x1F600};

void ExpectStatus(int32_t status, const char* message, const std::function<void()>& convert)
{
    try {
        convert();
        ADD_FAILURE() << "no error, expected " << status;
    } catch (const QRX_RuntimeError& e) {
        EXPECT_EQ(status, e.GetStatus());
        EXPECT_STREQ(message, e.what());
    }
}

}  // namespace

TEST(Unicode, EveryRouteRoundTripsAllFourForms)
{
    EXPECT_EQ(kUtf8, ToUTF8(kWide).str());
    EXPECT_EQ(kUtf8, ToUTF8(kWide.c_str()).str());
    EXPECT_EQ(kUtf8, ToUTF8(kUtf16.c_str()).str());
    EXPECT_EQ(kUtf8, ToUTF8(kUtf16.data(), kUtf16.size()).str());
    EXPECT_EQ(kUtf8, ToUTF8(kUtf32.c_str()).str());
    EXPECT_EQ(kUtf8, ToUTF8(kUtf32.data(), kUtf32.size()).str());

    EXPECT_EQ(kUtf16, ToUTF16(kUtf8.c_str()).str());
    EXPECT_EQ(kUtf16, ToUTF16(kUtf8.data(), kUtf8.size()).str());
    EXPECT_EQ(kUtf16, ToUTF16(kUtf8).str());
    EXPECT_EQ(kUtf16, ToUTF16(kWide).str());
    EXPECT_EQ(kUtf16, ToUTF16(kUtf32.c_str()).str());
    EXPECT_EQ(kUtf16, ToUTF16(kUtf16.c_str()).str());

    EXPECT_EQ(kUtf32, ToUTF32(kUtf8).str());
    EXPECT_EQ(kUtf32, ToUTF32(kUtf8.c_str()).str());
    EXPECT_EQ(kUtf32, ToUTF32(kUtf16.c_str()).str());
    EXPECT_EQ(kUtf32, ToUTF32(kWide).str());

    EXPECT_EQ(kWide, ToWideChar(kUtf8).str());
    EXPECT_EQ(kWide, ToWideChar(kUtf8.c_str()).str());
    EXPECT_EQ(kWide.substr(0, 2), ToWideChar(kUtf8.data(), 3).str());
    EXPECT_EQ(kWide, ToWideChar(kUtf16.c_str()).str());
    EXPECT_EQ(kWide, ToWideChar(kUtf32.data(), kUtf32.size()).str());
    EXPECT_EQ(kWide, StringUtils::ToStdString(kUtf16.c_str()));
}

TEST(Unicode, EmptySourcesGiveEmptyResults)
{
    const unsigned short empty16[] = {0};
    const unsigned int empty32[] = {0};
    EXPECT_TRUE(ToUTF8(std::wstring()).str().empty());
    EXPECT_TRUE(ToUTF8(L"").str().empty());
    EXPECT_TRUE(ToUTF8(empty16).str().empty());
    EXPECT_TRUE(ToUTF8(empty32).str().empty());
    EXPECT_TRUE(ToUTF16("").str().empty());
    EXPECT_TRUE(ToUTF16(std::wstring()).str().empty());
    EXPECT_TRUE(ToUTF16(empty32).str().empty());
    EXPECT_TRUE(ToUTF32(std::string()).str().empty());
    EXPECT_TRUE(ToUTF32(empty16).str().empty());
    EXPECT_TRUE(ToWideChar(std::string()).str().empty());
    EXPECT_TRUE(ToWideChar(empty16).str().empty());
    EXPECT_TRUE(ToWideChar(empty32).str().empty());
    EXPECT_EQ(L"", StringUtils::ToStdString(empty16));
}

TEST(Unicode, ReusableObjectReplacesItsResultAndLengthsKeepNul)
{
    ToUTF8 convert;
    EXPECT_EQ("abc", convert(std::wstring(L"abc")));
    EXPECT_EQ("\xC3\xA9", convert(std::wstring(L"\u00E9")));
    EXPECT_EQ(2u, convert.size());
    EXPECT_STREQ("\xC3\xA9", static_cast<const char*>(convert));
    const std::string withNul("a\0b", 3);
    EXPECT_EQ(std::wstring(L"a\0b", 3), ToWideChar(withNul).str());
    EXPECT_EQ(L"a", ToWideChar(withNul.c_str()).str());
}

TEST(Unicode, IllFormedInputFailsInTheStageThatRejectsIt)
{
    // Malformed UTF-8: a lone FF, a truncated sequence, an encoded surrogate.
    for (const std::string& bad : {std::string("\xFF"), std::string("ab\xE2\x82"), std::string("\xED\xA0\x80")}) {
        SCOPED_TRACE(bad);
        ExpectStatus(40583, "error measuring utf8 to utf16", [&] { ToWideChar{bad}; });
        ExpectStatus(40583, "error measuring utf8 to utf16", [&] { ToUTF16{bad}; });
        ExpectStatus(40583, "error measuring utf8 to utf16", [&] { ToUTF32{bad}; });
    }
    // A surrogate code point or a value above U+10FFFF in a wide or UTF-32 string.
    for (unsigned int bad : {0xD800u, 0xDFFFu, 0x110000u}) {
        SCOPED_TRACE(bad);
        const std::wstring wide(1, static_cast<wchar_t>(bad));
        const UTF32String utf32(1, bad);
        ExpectStatus(40584, "error measuring utf32 to utf16", [&] { ToUTF8{wide}; });
        ExpectStatus(40584, "error measuring utf32 to utf16", [&] { ToUTF8(utf32.data(), 1); });
        ExpectStatus(40584, "error measuring utf32 to utf16", [&] { ToUTF16{wide}; });
        ExpectStatus(40584, "error measuring utf32 to utf16", [&] { ToWideChar(utf32.data(), 1); });
    }
    // Unpaired surrogates in UTF-16, leading and trailing.
    for (const UTF16String& bad : {UTF16String{0x61, 0xD800}, UTF16String{0xDC00, 0x61}}) {
        ExpectStatus(40589, "error measuring utf16 to utf8", [&] { ToUTF8(bad.data(), bad.size()); });
        ExpectStatus(40587, "error measuring utf16 to utf32", [&] { ToWideChar(bad.data(), bad.size()); });
        ExpectStatus(40587, "error measuring utf16 to utf32", [&] { ToUTF32(bad.data(), bad.size()); });
        ExpectStatus(40587, "error measuring utf16 to utf32", [&] { StringUtils::ToStdString(bad.c_str()); });
    }
}
