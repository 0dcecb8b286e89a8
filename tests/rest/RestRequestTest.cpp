#include "rest/BufferReply.h"
#include "rest/BufferRequest.h"
#include "rest/FileRequest.h"
#include "rest/GetRequest.h"
#include "rest/RestIOPartBuffer.h"
#include "tests/rest/RestTestSupport.h"

#include <gtest/gtest.h>

using namespace OrvaneInternal;
using namespace OrvaneTest;

namespace {

BufferRequest Xml(const std::string& url, const std::string& body, RestRequest::Method method = RestRequest::Post)
{
    return BufferRequest(method, url, "token", Text(body));
}

}  // namespace

TEST(BufferRequest, StreamsTheSharedTextAsXml)
{
    for (const std::string text : {"<tsRequest/>", ""}) {
        auto xml = Text(text);
        BufferRequest request(RestRequest::Post, "https://h/api/2.0/auth/signin", "", xml);
        EXPECT_EQ("text/xml", request.m_contentType);
        ASSERT_EQ(1u, request.m_body.m_parts.size());
        EXPECT_EQ(xml, static_cast<RestIOPartBuffer&>(*request.m_body.m_parts[0]).m_data);  // shared, not copied
        EXPECT_EQ(xml->size(), request.m_body.GetSize());
        EXPECT_EQ(*xml, ReadAll(request.m_body, {5}));
    }
}

TEST(FileRequest, StreamsTheFileAsOctetsAndFailsEarlyWhenItIsMissing)
{
    TempDirectory dir("orv-rest");
    const std::string bytes = PatternBytes(70000);
    FileRequest request(RestRequest::Post, "u", "t", "ignored", WriteFile(dir, "upload.qrx", bytes));
    EXPECT_EQ("application/octet", request.m_contentType);
    EXPECT_EQ(bytes.size(), request.m_body.GetSize());
    EXPECT_EQ(bytes, ReadAll(request.m_body, {65536, 100}));

    const std::string missing = dir.File("missing.qrx");
    try {
        FileRequest failing(RestRequest::Post, "u", "t", "", missing);
        ADD_FAILURE() << "constructed over a missing file";
    } catch (RestIO::RestIOException& e) {
        EXPECT_STREQ(("Failed to open file: " + missing).c_str(), e.what());
    }
}

TEST(RestRequest, KindsCompareContentTypeAndBodyButNotTheAddress)
{
    const BufferRequest base = Xml("https://h/a", "<x/>");
    EXPECT_TRUE(base.gmock_equal(Xml("https://h/a", "<x/>")));
    EXPECT_FALSE(base.gmock_equal(Xml("https://h/a", "<y/>")));
    BufferRequest otherType = Xml("https://h/a", "<x/>");
    otherType.m_contentType = "text/plain";
    EXPECT_FALSE(base.gmock_equal(otherType));

    // Method, URL and token are the base's comparison, not the kinds'.
    const BufferRequest elsewhere = Xml("https://h/b", "<x/>", RestRequest::Get);
    EXPECT_TRUE(base.gmock_equal(elsewhere));
    EXPECT_FALSE(base.RestRequest::gmock_equal(elsewhere));
    EXPECT_TRUE(base.RestRequest::gmock_equal(Xml("https://h/a", "<y/>")));
    const GetRequest list(RestRequest::Get, "https://h/a", "t");
    EXPECT_TRUE(list.gmock_equal(GetRequest(RestRequest::Get, "https://h/b", "u")));

    TempDirectory dir("orv-rest");
    const std::string a = WriteFile(dir, "a.qrx", "same");
    const FileRequest upload(RestRequest::Post, "u", "t", "x", a);
    EXPECT_TRUE(upload.gmock_equal(FileRequest(RestRequest::Get, "v", "", "y", a)));  // the ignored argument too
    EXPECT_FALSE(upload.gmock_equal(FileRequest(RestRequest::Post, "u", "t", "x", WriteFile(dir, "b.qrx", "same"))));
}

TEST(BufferReply, CollectsWritesAndClearKeepsTheStatus)
{
    BufferReply reply;
    char first[] = {'<', 'a', '\0', '>'};  // bytes, not text: the NUL stays
    char second[] = "/>";
    EXPECT_EQ(4u, reply.Write(first, 4));
    EXPECT_EQ(0u, reply.Write(second, 0));
    EXPECT_EQ(2u, reply.Write(second, 2));
    EXPECT_EQ(std::string("<a\0>/>", 6), std::string(reply.m_data.begin(), reply.m_data.end()));
    reply.m_status = 201;
    reply.Clear();
    EXPECT_TRUE(reply.m_data.empty());
    EXPECT_EQ(201, reply.m_status);
}
