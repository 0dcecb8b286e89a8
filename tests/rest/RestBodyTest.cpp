// Request bodies as libcurl pulls them: reads in odd chunks and seeks, against the concatenated
// bytes of their parts (buffers and files streamed from disk).
#include "rest/RestIO.h"
#include "rest/RestIOPartBuffer.h"
#include "rest/RestIOPartFile.h"
#include "tests/support/TestSupport.h"

using namespace OrvaneInternal;
using namespace OrvaneTest;

TEST(RestBody, ReadsAndSeeksYieldTheConcatenatedParts)
{
    TempDirectory dir("orv-rest");
    const std::vector<std::string> files{"", "abc", Bytes(100000, 1)};
    for (std::size_t i = 0; i < files.size(); ++i)
        WriteFileBytes(dir.File(std::to_string(i)), files[i]);
    // Parts: a string is a buffer; "#n" is file n.
    const std::vector<std::vector<std::string>> bodies{{"AB", "CDE", "F", "GH"}, {"--b\r\n", "#2", "\r\n--b--\r\n"},
                                                       {"x", "#1", "#2", "#1"}, {"#2"}, {"head", "#0"}, {std::string(70000, 'z'), "y"}};
    for (const auto& parts : bodies) {
        RestIO body;
        std::string expected;
        for (const std::string& part : parts) {
            const bool file = part[0] == '#';
            expected += file ? files[part[1] - '0'] : part;
            body.AddPart(file ? std::shared_ptr<RestIOPart>(std::make_shared<RestIOPartFile>(dir.File(part.substr(1))))
                              : std::make_shared<RestIOPartBuffer>(std::make_shared<std::string>(part)));
        }
        SCOPED_TRACE(expected.substr(0, 20));
        const auto read = [&](char* b, std::size_t n) { return body.Read(b, n); };
        EXPECT_EQ(expected.size(), body.GetSize());
        EXPECT_TRUE(expected == ReadInOddChunks(read));
        for (std::size_t offset : {std::size_t(0), expected.size() / 2, std::size_t(1), expected.size() - 1, std::size_t(0)}) {
            ASSERT_EQ(0, body.Seek(offset)) << offset;  // a rewind for a resend, or a resume mid-stream
            EXPECT_TRUE(expected.substr(offset) == ReadInOddChunks(read)) << offset;
        }
    }
    // An empty first part makes the body impossible to rewind: libcurl is told the seek failed.
    RestIO leading;
    leading.AddPart(std::make_shared<RestIOPartBuffer>(std::make_shared<std::string>()));
    leading.AddPart(std::make_shared<RestIOPartBuffer>(std::make_shared<std::string>("AB")));
    EXPECT_EQ("AB", ReadInOddChunks([&](char* b, std::size_t n) { return leading.Read(b, n); }));
    EXPECT_EQ(1, leading.Seek(0));
}

TEST(RestBody, FilePartOpensAtOnceAndStreamsEvenWhenRemoved)
{
    TempDirectory dir("orv-rest");
    const std::string bytes = Bytes(100000, 2), path = dir.File("doomed.qrx");
    WriteFileBytes(path, bytes);
    RestIO body;
    body.AddPart(std::make_shared<RestIOPartFile>(path));
    ASSERT_EQ(0, std::remove(path.c_str()));
    EXPECT_TRUE(bytes == ReadInOddChunks([&](char* b, std::size_t n) { return body.Read(b, n); }));
    try {
        RestIOPartFile missing(path);
        ADD_FAILURE() << "opened a missing file";
    } catch (RestIO::RestIOException& e) {
        EXPECT_EQ("Failed to open file: " + path, e.what());
    }
}
