#include "rest/BufferReply.h"
#include "rest/BufferRequest.h"
#include "rest/FileRequest.h"
#include "rest/GetRequest.h"
#include "rest/MultipartRequest.h"
#include "rest/RestIOPartBuffer.h"

#include "rest/RestMatchers.h"
#include "rest/RestTestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>

using namespace OrvaneInternal;
using OrvaneTest::ReadAll;
using OrvaneTest::RequestEq;
using OrvaneTest::TempDir;
using testing::Not;
using testing::Pointee;

namespace {

std::shared_ptr<std::string> Text(const std::string& text)
{
    return std::make_shared<std::string>(text);
}

BufferRequest Xml(const std::string& url, const std::string& body, RestRequest::Method method = RestRequest::Post)
{
    return BufferRequest(method, url, "token", Text(body));
}

}  // namespace

TEST(BufferRequest, StreamsTheSharedTextAsXml)
{
    auto xml = Text("<tsRequest/>");
    BufferRequest request(RestRequest::Post, "https://h/api/2.0/auth/signin", "", xml);
    EXPECT_EQ(RestRequest::Post, request.m_method);
    EXPECT_EQ("https://h/api/2.0/auth/signin", request.m_url);
    EXPECT_EQ("", request.m_token);
    EXPECT_EQ("text/xml", request.m_contentType);
    ASSERT_EQ(1u, request.m_body.m_parts.size());
    EXPECT_EQ(xml, static_cast<RestIOPartBuffer&>(*request.m_body.m_parts[0]).m_data);  // shared, not copied
    EXPECT_EQ(xml->size(), request.m_body.GetSize());
    EXPECT_EQ(*xml, ReadAll(request.m_body, {5}));

    BufferRequest empty(RestRequest::Post, "u", "t", Text(""));
    EXPECT_EQ(0u, empty.m_body.GetSize());
    EXPECT_EQ("", ReadAll(empty.m_body));
}

TEST(FileRequest, StreamsTheFileAsOctetsAndFailsEarlyWhenItIsMissing)
{
    TempDir dir;
    const std::string bytes = OrvaneTest::PatternBytes(70000);
    const std::string path = dir.Write("upload.qrx", bytes);
    FileRequest request(RestRequest::Post, "u", "t", "ignored", path);
    EXPECT_EQ("application/octet", request.m_contentType);
    EXPECT_EQ(bytes.size(), request.m_body.GetSize());
    EXPECT_EQ(bytes, ReadAll(request.m_body, {65536, 100}));

    const std::string missing = dir.Path("missing.qrx");
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
    const GetRequest list(RestRequest::Get, "https://h/a", "t");
    EXPECT_TRUE(list.gmock_equal(GetRequest(RestRequest::Get, "https://h/b", "u")));

    TempDir dir;
    const std::string a = dir.Write("a.qrx", "same");
    const std::string b = dir.Write("b.qrx", "same");
    const FileRequest upload(RestRequest::Post, "u", "t", "x", a);
    EXPECT_TRUE(upload.gmock_equal(FileRequest(RestRequest::Get, "v", "", "y", a)));  // the ignored argument too
    EXPECT_FALSE(upload.gmock_equal(FileRequest(RestRequest::Post, "u", "t", "x", b)));
}

TEST(RequestEq, MatchesWholeRequestsOfTheSameKind)
{
    TempDir dir;
    const std::string path = dir.Write("a.qrx", "abc");
    auto upload = [&](const std::string& url, const std::string& xml) {
        auto request = std::make_shared<MultipartRequest>(RestRequest::Post, url, "t");
        request->AddBufferPayload(Text(xml));
        request->AddFilePayload("orvane_datasource", path);
        request->Finish();
        return request;
    };
    const auto expected = upload("https://h/d", "<x/>");
    EXPECT_THAT(*upload("https://h/d", "<x/>"), RequestEq(*expected));
    EXPECT_THAT(upload("https://h/d", "<x/>"), Pointee(RequestEq(expected)));
    EXPECT_THAT(*upload("https://h/d", "<y/>"), Not(RequestEq(*expected)));
    EXPECT_THAT(*upload("https://h/d?overwrite=true", "<x/>"), Not(RequestEq(*expected)));  // unlike gmock_equal
    EXPECT_THAT(Xml("https://h/d", "<x/>"), Not(RequestEq(*expected)));
    EXPECT_THAT(Xml("https://h/d", "<x/>"), RequestEq(Xml("https://h/d", "<x/>")));
    EXPECT_THAT(Xml("https://h/d", "<x/>"), Not(RequestEq(Xml("https://h/d", "<x/>", RestRequest::Get))));

    testing::StringMatchResultListener why;
    EXPECT_FALSE(RequestEq(*expected).MatchAndExplain(Xml("https://h/d", "<x/>"), &why));
    EXPECT_EQ("is another kind of request", why.str());
}

TEST(BufferReply, CollectsWritesAndClearKeepsTheStatus)
{
    BufferReply reply;
    EXPECT_EQ(0, reply.m_status);
    EXPECT_TRUE(reply.m_data.empty());
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
