#include "rest/RestIO.h"
#include "rest/RestIOPartBuffer.h"
#include "rest/RestIOPartFile.h"

#include "tests/rest/RestTestSupport.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <limits>

using namespace OrvaneInternal;
using namespace OrvaneTest;

namespace {

constexpr size_t kAllOnes = std::numeric_limits<size_t>::max();

std::shared_ptr<RestIOPartBuffer> Buffer(const std::string& text)
{
    return std::make_shared<RestIOPartBuffer>(Text(text));
}

RestIO Body(std::initializer_list<std::string> texts)
{
    RestIO body;
    for (const auto& text : texts) {
        body.AddPart(Buffer(text));
    }
    return body;
}

std::string Take(RestIO& body, size_t size)
{
    std::string out(size, '\0');
    const size_t n = body.Read(out.data(), size);
    if (n > size) {
        ADD_FAILURE() << "Read returned " << n << " for " << size;
        return {};
    }
    out.resize(n);
    return out;
}

size_t Position(const RestIO& body, size_t part)
{
    return static_cast<const RestIOPartBuffer&>(*body.m_parts[part]).m_position;
}

// The message of a RestIOException thrown by `action`, or "" when none is.
template <class Action>
std::string RestIOMessage(Action action)
{
    try {
        action();
    } catch (RestIO::RestIOException& e) {
        return e.what();
    }
    return "";
}

}  // namespace

TEST(RestIO, ReadCrossesPartsAndKeepsTheLastPartCurrent)
{
    RestIO none;
    char byte = 'x';
    EXPECT_EQ(kAllOnes, none.Read(&byte, 1));  // no parts: all ones, nothing written
    EXPECT_EQ('x', byte);

    RestIO body = Body({"AB", "CDE"});
    EXPECT_EQ(5u, body.GetSize());
    EXPECT_EQ("ABCD", Take(body, 4));
    EXPECT_EQ(1, body.m_current);
    EXPECT_EQ("E", Take(body, 4));
    EXPECT_EQ("", Take(body, 4));
    EXPECT_EQ(1, body.m_current);
}

TEST(RestIO, SeekLandsInsideTheRightPart)
{
    RestIO body = Body({"AB", "CDE"});
    ASSERT_EQ(0, body.Seek(3));
    EXPECT_EQ(1, body.m_current);
    EXPECT_EQ(1u, Position(body, 0));  // passed over: left on its last byte
    EXPECT_EQ(1u, Position(body, 1));
    EXPECT_EQ("DE", Take(body, 4));
    ASSERT_EQ(0, body.Seek(1));  // back into the first part: the second starts over
    EXPECT_EQ(0, body.m_current);
    EXPECT_EQ("BCDE", Take(body, 10));
    ASSERT_EQ(0, body.Seek(2));  // exactly at a part's end is the next part's start
    EXPECT_EQ("CDE", Take(body, 10));
}

TEST(RestIO, SeekZeroAfterAFullReadRewindsEveryPartReadSoFar)
{
    const std::string all = "ABCDEFGH";
    for (size_t chunk : {1u, 2u, 3u, 4u, 8u, 100u}) {
        SCOPED_TRACE("chunk " + std::to_string(chunk));
        RestIO body = Body({"AB", "CDE", "F", "GH"});
        ASSERT_EQ(all, ReadAll(body, {chunk}));
        ASSERT_EQ(0, body.Seek(0));
        EXPECT_EQ(0, body.m_current);
        EXPECT_EQ(all, ReadAll(body, {chunk}));
        ASSERT_EQ(0, body.Seek(3));  // back mid-stream after a full read
        EXPECT_EQ("DEFGH", ReadAll(body, {chunk}));
    }
}

TEST(RestIO, SeekToTheTotalSizeOrBeyondTakesTheResetPath)
{
    // The reset rewinds the parts after the first only. An offset that walks
    // off the end has left the first part on its last byte; the all-ones
    // offset skips the walk and leaves it where the read ended.
    struct Case {
        size_t offset;
        const char* reread;
    };
    for (const Case& c : {Case{5, "BCDE"}, Case{6, "BCDE"}, Case{kAllOnes, "CDE"}}) {
        SCOPED_TRACE("offset " + std::to_string(c.offset));
        RestIO body = Body({"AB", "CDE"});
        ASSERT_EQ("ABCDE", ReadAll(body));
        ASSERT_EQ(0, body.Seek(c.offset));
        EXPECT_EQ(0, body.m_current);
        EXPECT_EQ(c.reread, ReadAll(body));
    }
}

TEST(RestIO, AnEmptyPartInTheWayMakesSeekFail)
{
    RestIO leading = Body({"", "AB"});
    ASSERT_EQ("AB", ReadAll(leading));
    EXPECT_EQ(1, leading.Seek(0));  // so a body led by an empty part cannot be rewound
    EXPECT_EQ(1, leading.Seek(1));

    RestIO middle = Body({"AB", "", "CD"});
    EXPECT_EQ(1, middle.Seek(3));  // passing over it
    ASSERT_EQ(0, middle.Seek(1));  // nothing read yet, nothing to rewind
    EXPECT_EQ("BCD", ReadAll(middle));
    EXPECT_EQ(1, middle.Seek(0));  // rewinding it
}

TEST(RestIOPartBuffer, SeekStaysStrictlyInsideThePart)
{
    RestIOPartBuffer part(std::make_shared<std::string>("ABC"));
    EXPECT_FALSE(part.Seek(3));
    EXPECT_FALSE(part.Seek(kAllOnes));
    ASSERT_TRUE(part.Seek(2));
    char bytes[4] = {};
    EXPECT_EQ(1u, part.Read(bytes, sizeof bytes));
    EXPECT_EQ('C', bytes[0]);
    EXPECT_TRUE(part.Done());
    ASSERT_TRUE(part.Seek(0));
    EXPECT_FALSE(part.Done());
    EXPECT_EQ(3u, part.Read(bytes, sizeof bytes));

    RestIOPartBuffer empty(std::make_shared<std::string>());
    EXPECT_TRUE(empty.Done());
    EXPECT_FALSE(empty.Seek(0));
    EXPECT_EQ(0u, empty.Read(bytes, sizeof bytes));
}

TEST(RestIOPartBuffer, EqualityWithBoundarySubstitution)
{
    struct Case {
        const char* mine;
        const char* theirs;
        const char* from;
        const char* to;
        bool equal;
    };
    const Case cases[] = {
        {"--1111\r\nx", "--1111\r\nx", "", "", true},
        {"--1111\r\nx", "--2222\r\nx", "", "", false},
        {"--1111\r\nx", "--2222\r\nx", "1111", "", false},  // one side empty: byte for byte
        {"--1111\r\nx--1111", "--2222\r\nx--2222", "1111", "2222", true},
        {"--1111\r\nx", "--2222\r\ny", "1111", "2222", false},
        // The replaced texts agree, but their boundary appears in a payload of
        // ours where it is not ours: the occurrence counts differ.
        {"--1111\r\n2222", "--2222\r\n2222", "1111", "2222", false},
        {"plain", "plain", "1111", "2222", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.mine) + " vs " + c.theirs + " (" + c.from + " -> " + c.to + ")");
        EXPECT_EQ(c.equal, Buffer(c.mine)->gmock_equal(*Buffer(c.theirs), c.from, c.to));
    }
}

TEST(RestIO, EqualityComparesPartsInOrderAndTheirKinds)
{
    TempDirectory dir("orv-rest");
    const std::string path = WriteFile(dir, "a.qrx", "abc");
    const std::string other = WriteFile(dir, "b.qrx", "abc");
    auto withFile = [&](const std::string& text, const std::string& file) {
        RestIO body;
        body.AddPart(Buffer(text));
        body.AddPart(std::make_shared<RestIOPartFile>(file));
        return body;
    };
    RestIO read = withFile("x", path);
    ReadAll(read);  // positions do not count
    EXPECT_TRUE(withFile("x", path).gmock_equal(read, "", ""));
    EXPECT_FALSE(withFile("y", path).gmock_equal(read, "", ""));
    EXPECT_FALSE(withFile("x", other).gmock_equal(read, "", ""));  // same bytes, other path
    EXPECT_FALSE(Body({"x"}).gmock_equal(read, "", ""));
    EXPECT_FALSE(Body({"x", "abc"}).gmock_equal(read, "", ""));  // a buffer is not a file
    EXPECT_TRUE(RestIO().gmock_equal(RestIO(), "", ""));
}

TEST(RestIOPartFile, DoneOnlyAfterAReadHitsTheEnd)
{
    TempDirectory dir("orv-rest");
    RestIOPartFile empty(WriteFile(dir, "empty.qrx", ""));
    RestIOPartFile part(WriteFile(dir, "abc.qrx", "abc"));
    char bytes[8] = {};
    EXPECT_EQ(0u, empty.GetSize());
    EXPECT_FALSE(empty.Done());
    EXPECT_EQ(0u, empty.Read(bytes, 1));
    EXPECT_TRUE(empty.Done());

    EXPECT_EQ(3u, part.GetSize());
    EXPECT_EQ(3u, part.Read(bytes, 3));
    EXPECT_FALSE(part.Done());  // exactly consumed is not yet done
    EXPECT_EQ(0u, part.Read(bytes, 3));
    EXPECT_TRUE(part.Done());
    ASSERT_TRUE(part.Seek(1));
    EXPECT_FALSE(part.Done());
    EXPECT_EQ(2u, part.Read(bytes, sizeof bytes));
    EXPECT_EQ("bc", std::string(bytes, 2));
    EXPECT_FALSE(part.Seek(kAllOnes));
}

TEST(RestIOPartFile, MissingOrUnreadableFileFailsWithItsPath)
{
    TempDirectory dir("orv-rest");
    const std::string path = WriteFile(dir, "gone.qrx", "abc");
    ASSERT_EQ(0, std::remove(path.c_str()));
    EXPECT_EQ("Failed to open file: " + path, RestIOMessage([&] { RestIOPartFile part(path); }));

    // A directory opens as a file on some file systems and then fails to read; on others
    // it already fails to open. Either way the error names it.
    const std::string folder = dir.File("folder.qrx");
    ASSERT_TRUE(std::filesystem::create_directory(folder));
    std::shared_ptr<RestIOPartFile> part;
    const std::string opening = RestIOMessage([&] { part = std::make_shared<RestIOPartFile>(folder); });
    char bytes[16];
    EXPECT_EQ(part ? "Failed to read from file: " + folder : "Failed to open file: " + folder,
              part ? RestIOMessage([&] { part->Read(bytes, sizeof bytes); }) : opening);
}

TEST(RestIOPartFile, FileRemovedAfterOpeningStillStreams)
{
    TempDirectory dir("orv-rest");
    const std::string bytes = PatternBytes(100000);
    const std::string path = WriteFile(dir, "doomed.qrx", bytes);
    RestIO body;
    body.AddPart(std::make_shared<RestIOPartFile>(path));
    ASSERT_EQ(0, std::remove(path.c_str()));
    EXPECT_EQ(bytes, ReadAll(body, {4096, 777}));
}

TEST(RestIOException, MessageOnlyThroughTheNonConstWhat)
{
    const std::string standard = std::exception().what();
    try {
        throw RestIO::RestIOException("Failed to open file: /x");
    } catch (RestIO::RestIOException& e) {
        EXPECT_STREQ("Failed to open file: /x", e.what());
        EXPECT_EQ(standard, static_cast<const RestIO::RestIOException&>(e).what());
        EXPECT_EQ(standard, static_cast<const std::exception&>(e).what());  // not overridden
    }
}
