// Project lookup and extract publishing through the recording transport:
// the page checks, the paging loop, the file checks and the upload's bytes.
#include "tests/server/SessionFixture.h"

#include "rest/BufferRequest.h"
#include "rest/GetRequest.h"
#include "rest/MultipartRequest.h"
#include "server/MessageConversion.h"

#include <algorithm>
#include <stdexcept>

using namespace OrvaneInternal;
using namespace OrvaneTest;
using Strings = std::vector<std::string>;
using ProjectMap = std::unordered_map<std::wstring, std::wstring>;

namespace {

const char kPublished[] = "<qsResponse><datasource id=\"d\" name=\"n\"><project id=\"p\"/><owner id=\"o\"/>"
                          "<tags><tag label=\"x\"/></tags></datasource></qsResponse>";

}  // namespace

// Message kinds into requests: a GET is always a GET without body, a buffer
// keeps the message's method, every other kind value is multipart; a missing
// file fails with the file part's error. Replies come back as the collected bytes.
TEST_F(SessionTest, ConversionOfMessagesAndReplies)
{
    const std::string url = "http://h/\xC3\xA4?q=1", token = "t\xC3\xB6k", xml = "<r a=\"\xE2\x82\xAC\"/>";
    EXPECT_EQ(nullptr, ConvertReqMsg(AnyMsg(ReqMsg::None, RestRequest::Post)));
    const auto get = ConvertReqMsg(AnyMsg(ReqMsg::Get, RestRequest::Post));
    ASSERT_NE(nullptr, dynamic_cast<GetRequest*>(get.get()));
    EXPECT_EQ(RestRequest::Get, get->m_method);
    EXPECT_EQ(url + " " + token + " ", get->m_url + " " + get->m_token + " " + get->m_contentType);
    EXPECT_TRUE(get->m_body.m_parts.empty());
    for (RestRequest::Method method : {RestRequest::Post, RestRequest::Get}) {
        const auto buffer = ConvertReqMsg(AnyMsg(ReqMsg::Buffer, method));
        ASSERT_NE(nullptr, dynamic_cast<BufferRequest*>(buffer.get()));
        EXPECT_EQ(method, buffer->m_method);
        EXPECT_EQ(url + " " + token + " text/xml", buffer->m_url + " " + buffer->m_token + " " + buffer->m_contentType);
        EXPECT_EQ(xml, ReadBody(buffer->m_body));
    }
    const std::string bytes("a\0b\r\n", 5);
    const std::string file = Write("f.qrx", bytes);
    for (int kind : {3, 7, -1}) {
        SCOPED_TRACE(kind);
        const auto request = ConvertReqMsg(AnyMsg(static_cast<ReqMsg::ReqType>(kind), RestRequest::Post, ReqMsg::Xml, Wide(file)));
        ASSERT_NE(nullptr, dynamic_cast<MultipartRequest*>(request.get()));
        EXPECT_EQ(RestRequest::Post, request->m_method);
        EXPECT_EQ(url + " " + token, request->m_url + " " + request->m_token);
        const std::string boundary = Boundary(request->m_contentType);
        ASSERT_NE("", boundary) << request->m_contentType;
        EXPECT_EQ(ExpectedUpload(boundary, xml, "the_file", file, bytes), ReadBody(request->m_body));
    }
    try {
        ConvertReqMsg(AnyMsg(ReqMsg::Multipart, RestRequest::Post, ReqMsg::Xml, L"/nonexistent/d\u00EFr/x.qrx"));
        ADD_FAILURE() << "converted";
    } catch (RestIO::RestIOException& e) {
        EXPECT_STREQ("Failed to open file: /nonexistent/d\xC3\xAFr/x.qrx", e.what());
    }

    BufferReply reply;
    EXPECT_EQ("", ConvertRestReply(reply, ReqMsg::Xml));
    std::string replyBytes("<a>\0\xFF\xFE\xC3</a>\r\n", 13);
    reply.Write(&replyBytes[0], 4);
    reply.Write(&replyBytes[4], replyBytes.size() - 4);
    reply.m_status = 500;  // not looked at here
    EXPECT_EQ(replyBytes, ConvertRestReply(reply, ReqMsg::Xml));
    EXPECT_EQ("", ConvertRestReply(reply, ReqMsg::Unknown));
}

TEST_F(SessionTest, QueryProjectsChecksEachPage)
{
    const std::string total = "<qsResponse><pagination pageNumber=\"1\" pageSize=\"100\" totalAvailable=\"";
    const std::string mismatch = "401 Item number mismatch";
    const std::string wrongPage = "401 PageNumber or pageSize mismatch";
    const struct {
        const char* name;
        unsigned long page;
        std::string reply;
        std::string outcome;  // "last n" or "more n" when accepted, n being the projects handed back
    } cases[] = {
        {"empty site", 1, PageReply(1, 0, {}), "last 0"},
        {"one full page", 1, PageReply(1, 100, Numbered("p", 100)), "last 100"},
        {"one more than a page", 1, PageReply(1, 101, Numbered("p", 100)), "more 100"},
        {"short last page", 2, PageReply(2, 101, Numbered("q", 1)), "last 1"},
        {"lenient numbers", 1,
         "<qsResponse><pagination pageNumber=\" 1\" pageSize=\"+100\" totalAvailable=\"2 in all\" x=\"y\"/>"
         "<projects><project name=\"a\" id=\"1\" owner=\"o\"/><project id=\"2\" name=\"b\"/></projects></qsResponse>",
         "last 2"},
        {"last page too long", 2, PageReply(2, 101, Numbered("q", 2)), mismatch},
        {"full page too short", 1, PageReply(1, 101, Numbered("p", 99)), mismatch},
        {"page past the end", 3, PageReply(3, 101, {}), mismatch},
        {"duplicate names", 1, PageReply(1, 2, {{"a", "1"}, {"a", "2"}}), mismatch},
        {"empty name", 1, PageReply(1, 2, {{"a", "1"}, {"", "2"}}), mismatch},
        {"empty id", 1, PageReply(1, 2, {{"a", "1"}, {"b", ""}}), mismatch},
        {"other page", 1, PageReply(2, 0, {}), wrongPage},
        {"page size 50", 1,
         "<qsResponse><pagination pageNumber=\"1\" pageSize=\"50\" totalAvailable=\"0\"/><projects/></qsResponse>",
         wrongPage},
        {"no pagination", 1, "<qsResponse><projects/></qsResponse>", wrongPage},
        {"project with owner", 1,
         "<qsResponse><projects><project name=\"a\" id=\"1\"><owner id=\"u\"/></project></projects></qsResponse>",
         "403 "},
        {"unknown element", 1, "<qsResponse><users/></qsResponse>", "403 "},
        {"error document", 1, "<error code=\"404000\"/>", "403 "},
        {"not xml", 1, "Bad gateway", "300 "},
        {"not a number", 1, total + "many\"/></qsResponse>", "invalid_argument stoul"},
        {"too big", 1, total + "18446744073709551616\"/></qsResponse>", "out_of_range stoul"},
    };
    auto session = Connected();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Sent().clear();
        Net().Reply(200, c.reply);
        ProjectMap projects{{L"old", L"x"}};
        bool last = false;
        std::string outcome = Outcome([&] { last = session->QueryProjects(c.page, projects); });
        if (outcome == "ok") {
            outcome = (last ? "last " : "more ") + std::to_string(projects.size());
            EXPECT_EQ(0u, projects.count(L"old"));  // replaced, not merged
        } else {
            EXPECT_EQ(ProjectMap({{L"old", L"x"}}), projects);  // untouched on failure
        }
        EXPECT_EQ(c.outcome, outcome);
        ASSERT_EQ(1u, Sent().size());
        EXPECT_EQ("http://srv/api/2.0/sites/S/projects?pageSize=100&pageNumber=" + std::to_string(c.page),
                  Sent()[0].url);
        EXPECT_EQ(RestRequest::Get, Sent()[0].method);
        EXPECT_EQ("T", Sent()[0].token);
        EXPECT_EQ("", Sent()[0].contentType);
        EXPECT_EQ(0u, Sent()[0].parts);
    }
    EXPECT_TRUE(Log().empty());
    EXPECT_TRUE(session->IsConnected());
}

TEST_F(SessionTest, QueryProjectsMapsNamesToIds)
{
    auto session = Connected();
    Net().Reply(200, PageReply(7, 603, {{"Caf\xC3\xA9", "id&amp;1"}, {"Sales", "2"}, {"sales", "3"}}));
    ProjectMap projects;
    EXPECT_TRUE(session->QueryProjects(7, projects));
    EXPECT_EQ(ProjectMap({{L"Caf\u00E9", L"id&1"}, {L"Sales", L"2"}, {L"sales", L"3"}}), projects);

    Net().Reply(200, PageReply(1, 0, {}));
    EXPECT_EQ("401 PageNumber or pageSize mismatch",
              Outcome([&] { session->QueryProjects(18446744073709551615ul, projects); }));
    EXPECT_EQ("http://srv/api/2.0/sites/S/projects?pageSize=100&pageNumber=18446744073709551615", Sent().back().url);
}

TEST_F(SessionTest, PublishPagesToTheProjectAndUploadsTheFile)
{
    std::string file("\0head\r\n--not-a-boundary\r\n", 26);
    for (int i = 0; i < 70000; ++i)
        file += static_cast<char>(i * 31 % 251);
    const std::string path = Write("extr\xC3\xA4kt.qrx", file);
    const std::wstring dataSource = L"Q1 \"final\" & <more> \u00FC";
    const std::string dataSourceUtf8 = "Q1 \"final\" & <more> \xC3\xBC";

    const struct {
        const char* name;
        std::vector<std::string> pages;
        bool overwrite;
        const char* url;
    } cases[] = {
        {"first page",
         {PageReply(1, 3, {{"Other", "1"}, {"Caf\xC3\xA9", "p&quot;&amp;7"}, {"caf\xC3\xA9", "2"}})},
         false,
         "http://srv/api/2.0/sites/S/datasources"},
        {"third page",
         {PageReply(1, 250, Numbered("a", 100)), PageReply(2, 250, Numbered("b", 100)),
          PageReply(3, 250, Numbered("c", 49, {{"Caf\xC3\xA9", "p&quot;&amp;7"}}))},
         true,
         "http://srv/api/2.0/sites/S/datasources?overwrite=true"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto session = Connected();
        for (const std::string& page : c.pages)
            Net().Reply(200, page);
        Net().Reply(201, kPublished);
        session->PublishExtract(Wide(path), L"Caf\u00E9", dataSource, c.overwrite);

        EXPECT_EQ(0u, Net().Pending());
        ASSERT_EQ(c.pages.size() + 1, Sent().size());
        for (size_t i = 0; i < c.pages.size(); ++i)
            EXPECT_EQ("http://srv/api/2.0/sites/S/projects?pageSize=100&pageNumber=" + std::to_string(i + 1),
                      Sent()[i].url);
        const SentRequest& upload = Sent().back();
        EXPECT_EQ(c.url, upload.url);
        EXPECT_EQ(RestRequest::Post, upload.method);
        EXPECT_EQ("T", upload.token);
        const std::string boundary = Boundary(upload.contentType);
        ASSERT_NE("", boundary) << upload.contentType;
        // The id arrives unescaped from the reply and goes out unescaped again.
        const std::string xml =
            "<qsRequest><datasource name=\"" + dataSourceUtf8 + "\" ><project id=\"p\"&7\" /></datasource></qsRequest>";
        const std::string expected = ExpectedUpload(boundary, xml, "orvane_datasource", path, file);
        const auto diff = std::mismatch(expected.begin(), expected.end(), upload.body.begin(), upload.body.end());
        EXPECT_TRUE(expected == upload.body)
            << "body of " << upload.body.size() << " bytes, expected " << expected.size() << ", first difference at "
            << (diff.first - expected.begin());
        EXPECT_EQ(upload.body.size(), upload.announcedSize);
        EXPECT_EQ(Strings({"W Querying projects...", "W Publishing extract: " + path,
                           "W Project name      : Caf\xC3\xA9", "W Data source name  : " + dataSourceUtf8}),
                  Log());
        EXPECT_TRUE(session->IsConnected());
        EXPECT_EQ(L"T", session->GetToken());
    }
}

TEST_F(SessionTest, PublishOfAnUnknownProjectReadsEveryPage)
{
    const std::wstring path = Wide(Write("a.qrx", "x"));
    auto session = Connected();
    Net().Reply(200, PageReply(1, 150, Numbered("p", 100)));
    Net().Reply(200, PageReply(2, 150, Numbered("q", 49, {{"sales", "1"}})));  // names match case-sensitively
    EXPECT_EQ("303 Project \"Sales\" doesn't exist on server",
              Outcome([&] { session->PublishExtract(path, L"Sales", L"ds", false); }));
    EXPECT_EQ(2u, Sent().size());
    EXPECT_EQ(Strings({"W Querying projects..."}), Log());

    // A failing page ends the publish with the page's own error.
    Net().Reply(200, PageReply(1, 150, Numbered("p", 99)));
    EXPECT_EQ("401 Item number mismatch", Outcome([&] { session->PublishExtract(path, L"p1", L"ds", false); }));
    Net().Reply(200, "<qsResponse><pagination pageSize=\"x\"/></qsResponse>");
    EXPECT_EQ("invalid_argument stoul", Outcome([&] { session->PublishExtract(path, L"p1", L"ds", false); }));
    EXPECT_EQ(4u, Sent().size());
    EXPECT_TRUE(session->IsConnected());
}

TEST_F(SessionTest, PublishChecksTheFileFirst)
{
    for (const char* name : {"a.qrx", "a.qrx.qrx", ".qrx", "a.QRX", "a.qrx.bak", "noext"})
        Write(name, "x");
    const struct {
        std::string path;
        bool passes;
    } cases[] = {
        {m_dir.File("a.qrx"), true},        {m_dir.File("a.qrx.qrx"), true},
        {m_dir.File(".qrx"), true},         {m_dir.File("a.QRX"), false},
        {m_dir.File("a.qrx.bak"), false},   {m_dir.File("noext"), false},
        {m_dir.File("missing.qrx"), false}, {"", false},
    };
    // Not signed in: a path that passes goes on to the project query, which refuses.
    ServerConnection session;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        const std::string outcome = Outcome([&] { session.PublishExtract(Wide(c.path), L"p", L"d", true); });
        if (c.passes) {
            EXPECT_EQ("402 Connect must be called first", outcome);
            EXPECT_EQ(Strings({"W Querying projects..."}), Log());
        } else {
            EXPECT_EQ("303 File \"" + c.path + "\" is either invalid or doesn't exist", outcome);
            EXPECT_TRUE(Log().empty());
        }
    }
    EXPECT_TRUE(Sent().empty());
    EXPECT_EQ("402 Connect must be called first",
              Outcome([&] { session.PublishExtractInternal(Wide(m_dir.File("a.qrx")), L"1", L"d", false); }));
    EXPECT_TRUE(Sent().empty());
}

TEST_F(SessionTest, PublishReplyShapes)
{
    const std::wstring path = Wide(Write("e.qrx", ""));
    const struct {
        int64_t status;
        const char* reply;
        const char* outcome;
    } cases[] = {
        {201, kPublished, "ok"},
        {200, "<qsResponse/>", "ok"},
        {200, "<qsResponse><datasource><tags><tag/><tag/></tags><tags/></datasource></qsResponse>", "ok"},
        {200, "<qsResponse><datasource><owner><tag/></owner></datasource></qsResponse>", "ok"},  // by depth only
        {200, "", "300 "},
        {200, "Created", "300 "},
        {200, "<qsResponse><datasource>", "300 "},
        {200, "<qsResponse><project/></qsResponse>", "403 "},
        {200, "<qsResponse><datasource><tag/></datasource></qsResponse>", "403 "},
        {200, "<qsResponse><datasource><tags><owner/></tags></datasource></qsResponse>", "403 "},
        {200, "<qsResponse><datasource><tags><tag><x/></tag></tags></datasource></qsResponse>", "403 "},
        {200, "<error code=\"409093\"/>", "403 "},
        {409, "<error code=\"409093\"/>", "401 Server Response Code: 409"},
    };
    auto session = Connected();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reply);
        Sent().clear();
        Net().Reply(c.status, c.reply);
        EXPECT_EQ(c.outcome, Outcome([&] { session->PublishExtractInternal(path, L"7", L"d", false); }));
        ASSERT_EQ(1u, Sent().size());
        const std::string boundary = Boundary(Sent()[0].contentType);
        EXPECT_EQ(ExpectedUpload(boundary,
                                 "<qsRequest><datasource name=\"d\" ><project id=\"7\" /></datasource></qsRequest>",
                                 "orvane_datasource", Unicode::ToUTF8(path).str(), ""),
                  Sent()[0].body);
        EXPECT_TRUE(session->IsConnected());
        EXPECT_EQ(L"S", session->GetSiteId());
    }
}
