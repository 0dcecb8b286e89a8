// Request messages into HTTP requests, and reply buffers back into text.
#include "tests/server/SessionFixture.h"

#include "rest/BufferReply.h"
#include "rest/BufferRequest.h"
#include "rest/GetRequest.h"
#include "rest/MultipartRequest.h"
#include "server/MessageConversion.h"
#include "server/MultipartReqMsg.h"
#include "sys/Unicode.h"

#include <gtest/gtest.h>

#include <string>

using namespace OrvaneInternal;
using OrvaneTest::ReadBody;
using OrvaneTest::TempDir;

namespace {

class TestMsg : public MultipartReqMsg {
public:
    TestMsg(ReqType kind, RestRequest::Method method, const std::wstring& path = L"")
        : MultipartReqMsg(L"http://h", L"site", L"t\u00F6k", kind, method, ReqMsg::Xml), m_path(path)
    {
    }
    std::wstring GetUrl() const override { return L"http://h/\u00E4?q=1"; }
    std::wstring GetXml() const override { return L"<r a=\"\u20AC\"/>"; }
    std::wstring GetPath() const override { return m_path; }
    std::string GetFormat() const override { return "the_file"; }

    std::wstring m_path;
};

}  // namespace

TEST(ConvertReqMsg, EachKindMakesItsRequest)
{
    const std::string url = "http://h/\xC3\xA4?q=1";
    const std::string token = "t\xC3\xB6k";
    const std::string xml = "<r a=\"\xE2\x82\xAC\"/>";

    EXPECT_EQ(nullptr, ConvertReqMsg(TestMsg(ReqMsg::None, RestRequest::Post)));

    // Always a GET without body, whatever the message's method and XML.
    const auto get = ConvertReqMsg(TestMsg(ReqMsg::Get, RestRequest::Post));
    ASSERT_NE(nullptr, dynamic_cast<GetRequest*>(get.get()));
    EXPECT_EQ(RestRequest::Get, get->m_method);
    EXPECT_EQ(url, get->m_url);
    EXPECT_EQ(token, get->m_token);
    EXPECT_EQ("", get->m_contentType);
    EXPECT_TRUE(get->m_body.m_parts.empty());

    for (RestRequest::Method method : {RestRequest::Post, RestRequest::Get}) {
        SCOPED_TRACE(method);
        const auto buffer = ConvertReqMsg(TestMsg(ReqMsg::Buffer, method));
        ASSERT_NE(nullptr, dynamic_cast<BufferRequest*>(buffer.get()));
        EXPECT_EQ(method, buffer->m_method);
        EXPECT_EQ(url, buffer->m_url);
        EXPECT_EQ(token, buffer->m_token);
        EXPECT_EQ("text/xml", buffer->m_contentType);
        EXPECT_EQ(xml, ReadBody(buffer->m_body));
    }

    TempDir dir;
    const std::string bytes("a\0b\r\n", 5);
    const std::string file = dir.Write("f.qrx", bytes);
    const std::wstring path = Unicode::ToWideChar(file).str();
    // Values other than the named kinds are multipart too.
    for (int kind : {3, 7, -1}) {
        SCOPED_TRACE(kind);
        const auto request = ConvertReqMsg(TestMsg(static_cast<ReqMsg::ReqType>(kind), RestRequest::Post, path));
        ASSERT_NE(nullptr, dynamic_cast<MultipartRequest*>(request.get()));
        EXPECT_EQ(RestRequest::Post, request->m_method);
        EXPECT_EQ(url, request->m_url);
        EXPECT_EQ(token, request->m_token);
        const std::string boundary = OrvaneTest::Boundary(request->m_contentType);
        ASSERT_NE("", boundary) << request->m_contentType;
        EXPECT_EQ(OrvaneTest::ExpectedUpload(boundary, xml, "the_file", file, bytes), ReadBody(request->m_body));
    }
}

TEST(ConvertReqMsg, MissingFileFailsWithTheFilePartsError)
{
    try {
        ConvertReqMsg(TestMsg(ReqMsg::Multipart, RestRequest::Post, L"/nonexistent/d\u00EFr/x.qrx"));
        ADD_FAILURE() << "converted";
    } catch (RestIO::RestIOException& e) {
        EXPECT_STREQ("Failed to open file: /nonexistent/d\xC3\xAFr/x.qrx", e.what());
    }
}

TEST(ConvertRestReply, HandsBackTheCollectedBytes)
{
    BufferReply empty;
    EXPECT_EQ("", ConvertRestReply(empty, ReqMsg::Xml));

    BufferReply reply;
    std::string bytes("<a>\0\xFF\xFE\xC3</a>\r\n", 13);
    reply.Write(&bytes[0], 4);
    reply.Write(&bytes[4], bytes.size() - 4);
    reply.m_status = 500;  // not looked at here
    EXPECT_EQ(bytes, ConvertRestReply(reply, ReqMsg::Xml));
    EXPECT_EQ("", ConvertRestReply(reply, ReqMsg::Unknown));
}
