// The session layer byte for byte through the transport seam (NetworkFactory::s_creator): the
// requests as the wire would carry them, the replies' shapes, the errors and the log lines.
#include "logging/Logger.h"
#include "network/CurlNetworkException.h"
#include "network/INetwork.h"
#include "network/NetworkFactory.h"
#include "rest/BufferReply.h"
#include "rest/RestRequest.h"
#include "server/ServerConnection.h"
#include "server/ServerException.h"
#include "sys/Unicode.h"
#include "tests/support/TestSupport.h"

#include <deque>

using namespace OrvaneInternal;
using namespace OrvaneTest;
using Strings = std::vector<std::string>;
using ProjectMap = std::unordered_map<std::wstring, std::wstring>;

namespace {

// Keeps every line queued, wide ones as "W " + UTF-8, narrow ones as "N ".
class CapturingLogger : public Logger {
public:
    void Run() override {}
    void QueueMessage(std::wistream&) override { ADD_FAILURE() << "stream overload"; }
    void QueueMessage(std::istream&) override { ADD_FAILURE() << "stream overload"; }
    void QueueMessage(const std::wstring& message) override { lines.push_back("W " + Unicode::ToUTF8(message).str()); }
    void QueueMessage(const std::string& message) override { lines.push_back("N " + message); }
    void Flush() override {}
    void QueueStop() override {}
    const std::wstring& GetBaseFilePath() const override { return m_path; }
    Strings lines;

private:
    std::wstring m_path;
};

struct SentRequest {
    RestRequest::Method method;
    std::string url, token, contentType, body;
    std::size_t announcedSize;
};

// Records every request as the wire would see it and answers from a queue.
class FakeNetwork : public INetwork {
public:
    void SetProxyCredentials(const std::string&, const std::string&) override {}
    void Send(RestRequest& request, RestReply& reply) override
    {
        RestIO& body = request.m_body;
        sent.push_back({request.m_method, request.m_url, request.m_token, request.m_contentType,
                        body.m_parts.empty() ? "" : ReadInOddChunks([&](char* b, std::size_t n) { return body.Read(b, n); }),
                        body.m_parts.empty() ? 0 : body.GetSize()});
        if (replies.empty())
            throw CurlNetworkException(std::string("unscripted request"));
        const auto [status, text] = replies.front();
        replies.pop_front();
        if (status == 0)
            throw CurlNetworkException(text);
        for (std::size_t at = 0; at < text.size(); at += 5)  // in pieces, as libcurl writes
            reply.Write(const_cast<char*>(text.data()) + at, std::min<std::size_t>(5, text.size() - at));
        dynamic_cast<BufferReply&>(reply).m_status = status;
    }
    std::deque<std::pair<int64_t, std::string>> replies;  // status 0: fail with this libcurl text
    std::vector<SentRequest> sent;
};

std::string SigninReply(const std::string& token = "T", const std::string& site = "S")
{
    return "<qsResponse><credentials token=\"" + token + "\"><site id=\"" + site + "\" contentUrl=\"\"/><user id=\"U\"/></credentials></qsResponse>";
}
using Projects = std::vector<std::pair<std::string, std::string>>;
std::string PageReply(unsigned long page, unsigned long total, const Projects& projects)
{
    std::string xml = "<qsResponse><pagination pageNumber=\"" + std::to_string(page) + "\" pageSize=\"100\" totalAvailable=\"" +
                      std::to_string(total) + "\"/><projects>";
    for (const auto& [name, id] : projects)
        xml += "<project id=\"" + id + "\" name=\"" + name + "\"/>";
    return xml + "</projects></qsResponse>";
}
Projects Numbered(const std::string& prefix, int count, const Projects& more = {})
{
    Projects projects;
    for (int i = 0; i < count; ++i)
        projects.emplace_back(prefix + std::to_string(i), "id-" + prefix + std::to_string(i));
    projects.insert(projects.end(), more.begin(), more.end());
    return projects;
}
std::wstring Wide(const std::string& utf8) { return Unicode::ToWideChar(utf8).str(); }
// "ok", "<code> <message>" for a ServerException, "<type> <what>" for the standard errors that pass through.
std::string Outcome(const std::function<void()>& call)
{
    try {
        call();
        return "ok";
    } catch (const ServerException& e) {
        return std::to_string(e.getErrorCode()) + " " + Unicode::ToUTF8(e.getMessage()).str();
    } catch (const std::invalid_argument& e) {
        return std::string("invalid_argument ") + e.what();
    } catch (const std::out_of_range& e) {
        return std::string("out_of_range ") + e.what();
    }
}
const std::string kUploadXml = "<qsRequest><datasource name=\"d\" ><project id=\"7\" /></datasource></qsRequest>";

class SessionTest : public ::testing::Test {
protected:
    SessionTest()
    {
        NetworkFactory::s_creator = [this] { return std::shared_ptr<INetwork>(m_net); };
        ServerConnection::s_initialized = true;
        Logger::Init(RefCntPtr<Logger>(m_logger));
    }
    ~SessionTest() override
    {
        NetworkFactory::s_creator = nullptr;
        ServerConnection::s_initialized = false;
        Logger::Init(RefCntPtr<Logger>());
    }
    Strings Log() { return std::exchange(m_logger->lines, {}); }
    std::vector<SentRequest>& Sent() { return m_net->sent; }
    void Reply(int64_t status, const std::string& body) { m_net->replies.emplace_back(status, body); }
    // Signed in to http://srv with token T and site S; the sign-in's traffic and log are dropped.
    std::unique_ptr<ServerConnection> Connected()
    {
        auto session = std::make_unique<ServerConnection>();
        Reply(200, SigninReply());
        session->Connect(L"http://srv", L"alice", L"pw", L"");
        Sent().clear();
        Log();
        return session;
    }
    // The boundary of a multipart content type; "" unless 28 hyphens and 12 lower-case hex digits.
    static std::string Boundary(const std::string& type)
    {
        const std::string prefix = "multipart/mixed; boundary=", b = type.substr(std::min(type.size(), prefix.size()));
        return type.rfind(prefix, 0) == 0 && b.size() == 40 && b.find_first_not_of('-') == 28 &&
                       b.find_first_not_of("0123456789abcdef", 28) == std::string::npos ? b : "";
    }

    std::shared_ptr<FakeNetwork> m_net = std::make_shared<FakeNetwork>();
    RefCntPtr<CapturingLogger> m_logger{new CapturingLogger()};
    TempDirectory m_dir{"orv-session"};
};

}  // namespace

TEST_F(SessionTest, ConstructionNeedsStartup)
{
    ServerConnection::s_initialized = false;
    EXPECT_EQ("404 Initialize() must be called before any other use.", Outcome([] { ServerConnection session; }));
}

TEST_F(SessionTest, SignInSendsTheValuesVerbatimAndLaterRequestsCarryTokenAndSite)
{
    ServerConnection session;
    Reply(200, SigninReply("tok\xC3\xA9n", "site-1"));
    session.Connect(L"http://srv/", L"al\"i&ce", L"p<w\u00E9", L"Sales Site");
    ASSERT_EQ(1u, Sent().size());
    EXPECT_EQ(RestRequest::Post, Sent()[0].method);
    EXPECT_EQ("http://srv/api/2.0/auth/signin text/xml ", Sent()[0].url + " " + Sent()[0].contentType + " " + Sent()[0].token);
    EXPECT_EQ("<qsRequest><credentials name=\"al\"i&ce\" password=\"p<w\xC3\xA9\" ><site contentUrl=\"Sales Site\" /> </credentials></qsRequest>",
              Sent()[0].body);
    EXPECT_EQ(Sent()[0].body.size(), Sent()[0].announcedSize);
    EXPECT_EQ(Strings({"W Connecting: http://srv", "W Username  : al\"i&ce", "W Site ID   : Sales Site"}), Log());
    ProjectMap projects;
    Reply(200, PageReply(1, 0, {}));
    EXPECT_TRUE(session.QueryProjects(1, projects));
    EXPECT_EQ(RestRequest::Get, Sent()[1].method);
    EXPECT_EQ("http://srv/api/2.0/sites/site-1/projects?pageSize=100&pageNumber=1 tok\xC3\xA9n  0",
              Sent()[1].url + " " + Sent()[1].token + " " + Sent()[1].contentType + " " + std::to_string(Sent()[1].body.size()));
}

TEST_F(SessionTest, ConnectTrimsTrailingSlashesOnly)
{
    const std::pair<const wchar_t*, const char*> cases[] = {
        {L"http://srv", "http://srv"}, {L"http://srv///", "http://srv"}, {L"https://srv:8443/base//", "https://srv:8443/base"},
        {L"http://caf\u00E9/", "http://caf\xC3\xA9"}, {L"/", "/"}, {L"///", "///"}, {L"", ""}};
    for (const auto& [host, kept] : cases) {
        SCOPED_TRACE(kept);
        ServerConnection session;
        Reply(200, SigninReply());
        Log();  // the previous session's close
        session.Connect(host, L"u", L"p", L"s");
        EXPECT_EQ(std::string(kept) + "/api/2.0/auth/signin", Sent().back().url);
        EXPECT_EQ(Strings({std::string("W Connecting: ") + kept, "W Username  : u", "W Site ID   : s"}), Log());
    }
}

TEST_F(SessionTest, SignInReplyShapes)
{
    const struct {
        const char* reply;
        const char* outcome;
        const wchar_t *token, *siteId;
    } cases[] = {
        {"<qsResponse><credentials><site/></credentials></qsResponse>", "ok", L"", L""},
        {"<qsResponse/>", "ok", L"", L""},
        {"<qsResponse><credentials token=\"A\"/><credentials token=\"B\"><site id=\"\xE2\x82\xAC\"/></credentials></qsResponse>", "ok", L"B", L"\u20AC"},
        {"", "300 ", L"", L""},
        {"Service unavailable", "300 ", L"", L""},
        {"<qsResponse><credentials token=\"T\">", "300 ", L"", L""},
        {"<error code=\"401\">Signin failed</error>", "403 ", L"", L""},
        {"<QSRESPONSE/>", "403 ", L"", L""},
        {"<qsResponse><site id=\"S\"/></qsResponse>", "403 ", L"", L""},
        {"<qsResponse><credentials><owner/></credentials></qsResponse>", "403 ", L"", L""},
        {"<qsResponse><credentials><site><x/></site></credentials></qsResponse>", "403 ", L"", L""},
        {"<qsResponse><credentials><user><x/></user></credentials></qsResponse>", "403 ", L"", L""},
        {"<bad><", "403 ", L"", L""},  // the handler's refusal comes before the syntax error
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reply);
        ServerConnection session;
        Reply(200, c.reply);
        EXPECT_EQ(c.outcome, Outcome([&] { session.Connect(L"http://srv/", L"u", L"p", L""); }));
        EXPECT_EQ(std::string(c.outcome) == "ok", session.IsConnected());
        EXPECT_EQ(std::wstring(c.token) + L"|" + c.siteId, session.GetToken() + L"|" + session.GetSiteId());
    }
}

TEST_F(SessionTest, StatusOutsideTheSuccessRangeIsRefusedAndExplainedInTheLog)
{
    const std::string errorDocument = "<error code=\"401001\"><summary>Signin Error</summary></error>";
    const std::pair<int64_t, const char*> cases[] = {{200, ""}, {299, ""}, {300, "Server Response Code: 300"},
        {199, "Server Response Code: 199"}, {-200, "Server Response Code: -200"},
        {(int64_t(1) << 32) + 200, "Server Response Code: 200"}};  // shown as 32 bits, judged on the full value
    for (const auto& [status, text] : cases) {
        SCOPED_TRACE(status);
        ServerConnection session;
        Log();
        Reply(status, *text ? errorDocument : SigninReply());
        EXPECT_EQ(*text ? std::string("401 ") + text : "ok", Outcome([&] { session.Connect(L"http://srv", L"u", L"p", L"s"); }));
        EXPECT_EQ(!*text, session.IsConnected());
        Strings log = {"W Connecting: http://srv", "W Username  : u", "W Site ID   : s"};
        if (*text)
            log.insert(log.end(), {std::string("W ") + text, "N Response:\n" + errorDocument});
        EXPECT_EQ(log, Log());
    }
    ServerConnection session;
    m_net->replies.emplace_back(0, "Couldn't resolve host name: caf\xC3\xA9");
    EXPECT_EQ("400 Couldn't resolve host name: caf\xC3\xA9", Outcome([&] { session.Connect(L"http://srv", L"u", L"p", L""); }));
    EXPECT_EQ(Strings({"W Connecting: http://srv", "W Username  : u", "W Site ID   : ", "N Curl Error:",
                       "N Couldn't resolve host name: caf\xC3\xA9"}), Log());
}

TEST_F(SessionTest, DisconnectReconnectAndCloseLogging)
{
    {
        ServerConnection never;
        never.Disconnect();
        ServerConnection failed;
        Reply(500, "");
        EXPECT_EQ("401 Server Response Code: 500", Outcome([&] { failed.Connect(L"http://a/", L"u", L"p", L""); }));
        Log();
    }
    EXPECT_TRUE(Log().empty());  // neither a fresh nor a failed session is disconnected on close
    ServerConnection session;
    Reply(200, SigninReply("T1", "S1"));
    session.Connect(L"http://a/", L"u", L"p", L"");
    Log();
    Reply(200, SigninReply("T2", "S2"));
    session.Connect(L"http://b", L"v", L"q", L"x");
    EXPECT_EQ(Strings({"W About to disconnect: http://a", "W Disconnecting: http://a", "W Connecting: http://b",
                       "W Username  : v", "W Site ID   : x"}), Log());
    EXPECT_EQ(L"T2 S2", session.GetToken() + L" " + session.GetSiteId());
    session.Disconnect();
    session.Disconnect();
    EXPECT_EQ(Strings({"W Disconnecting: http://b", "W Disconnecting: "}), Log());
    EXPECT_EQ(L"", session.GetHost() + session.GetToken() + session.GetSiteId());
    EXPECT_EQ(3u, Sent().size());  // signing out is client-side
    ProjectMap projects;
    EXPECT_EQ("402 Connect must be called first", Outcome([&] { session.QueryProjects(1, projects); }));
    auto closing = Connected();
    closing.reset();
    EXPECT_EQ(Strings({"W Disconnecting: http://srv"}), Log());
}

TEST_F(SessionTest, QueryProjectsChecksEachPage)
{
    const std::string total = "<qsResponse><pagination pageNumber=\"1\" pageSize=\"100\" totalAvailable=\"";
    const std::string mismatch = "401 Item number mismatch", wrongPage = "401 PageNumber or pageSize mismatch";
    const struct {
        const char* name;
        unsigned long page;
        std::string reply, outcome;  // "last n" or "more n" when accepted, n projects handed back
    } cases[] = {
        {"empty site", 1, PageReply(1, 0, {}), "last 0"},
        {"one full page", 1, PageReply(1, 100, Numbered("p", 100)), "last 100"},
        {"one more than a page", 1, PageReply(1, 101, Numbered("p", 100)), "more 100"},
        {"short last page", 2, PageReply(2, 101, Numbered("q", 1)), "last 1"},
        {"lenient numbers", 1, "<qsResponse><pagination pageNumber=\" 1\" pageSize=\"+100\" totalAvailable=\"2 in all\" x=\"y\"/>"
         "<projects><project name=\"a\" id=\"1\" owner=\"o\"/><project id=\"2\" name=\"b\"/></projects></qsResponse>", "last 2"},
        {"last page too long", 2, PageReply(2, 101, Numbered("q", 2)), mismatch},
        {"full page too short", 1, PageReply(1, 101, Numbered("p", 99)), mismatch},
        {"page past the end", 3, PageReply(3, 101, {}), mismatch},
        {"duplicate names", 1, PageReply(1, 2, {{"a", "1"}, {"a", "2"}}), mismatch},
        {"empty name", 1, PageReply(1, 2, {{"a", "1"}, {"", "2"}}), mismatch},
        {"empty id", 1, PageReply(1, 2, {{"a", "1"}, {"b", ""}}), mismatch},
        {"other page", 1, PageReply(2, 0, {}), wrongPage},
        {"page size 50", 1, "<qsResponse><pagination pageNumber=\"1\" pageSize=\"50\" totalAvailable=\"0\"/></qsResponse>", wrongPage},
        {"no pagination", 1, "<qsResponse><projects/></qsResponse>", wrongPage},
        {"largest page number", 18446744073709551615ul, PageReply(1, 0, {}), wrongPage},
        {"project with owner", 1, "<qsResponse><projects><project name=\"a\" id=\"1\"><owner/></project></projects></qsResponse>", "403 "},
        {"unknown element", 1, "<qsResponse><users/></qsResponse>", "403 "},
        {"error document", 1, "<error code=\"404000\"/>", "403 "},
        {"not xml", 1, "Bad gateway", "300 "},
        {"not a number", 1, total + "many\"/></qsResponse>", "invalid_argument stoul"},
        {"too big", 1, total + "18446744073709551616\"/></qsResponse>", "out_of_range stoul"},
    };
    auto session = Connected();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Reply(200, c.reply);
        ProjectMap projects{{L"old", L"x"}};
        bool last = false;
        std::string outcome = Outcome([&] { last = session->QueryProjects(c.page, projects); });
        if (outcome == "ok")
            outcome = (last ? "last " : "more ") + std::to_string(projects.size() - projects.count(L"old") * 1000);
        else
            EXPECT_EQ(ProjectMap({{L"old", L"x"}}), projects);  // untouched on failure
        EXPECT_EQ(c.outcome, outcome);
        EXPECT_EQ("http://srv/api/2.0/sites/S/projects?pageSize=100&pageNumber=" + std::to_string(c.page), Sent().back().url);
    }
    EXPECT_TRUE(Log().empty());
    // Names and ids come unescaped from the reply; names are told apart by case.
    Reply(200, PageReply(7, 603, {{"Caf\xC3\xA9", "id&amp;1"}, {"Sales", "2"}, {"sales", "3"}}));
    ProjectMap projects;
    EXPECT_TRUE(session->QueryProjects(7, projects));
    EXPECT_EQ(ProjectMap({{L"Caf\u00E9", L"id&1"}, {L"Sales", L"2"}, {L"sales", L"3"}}), projects);
}

TEST_F(SessionTest, PublishPagesToTheProjectAndUploadsTheFile)
{
    std::string file("\0head\r\n--not-a-boundary\r\n", 26);
    file += Bytes(70000, 3);
    const std::string path = m_dir.File("extr\xC3\xA4kt.qrx");
    WriteFileBytes(path, file);
    const std::string name = "Q1 \"final\" & <more> \xC3\xBC";
    const struct {
        std::vector<std::string> pages;
        bool overwrite;
        std::string url;
    } cases[] = {
        {{PageReply(1, 3, {{"Other", "1"}, {"Caf\xC3\xA9", "p&quot;&amp;7"}, {"caf\xC3\xA9", "2"}})}, false, "http://srv/api/2.0/sites/S/datasources"},
        {{PageReply(1, 250, Numbered("a", 100)), PageReply(2, 250, Numbered("b", 100)),
          PageReply(3, 250, Numbered("c", 49, {{"Caf\xC3\xA9", "p&quot;&amp;7"}}))}, true, "http://srv/api/2.0/sites/S/datasources?overwrite=true"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.url);
        auto session = Connected();
        for (const std::string& page : c.pages)
            Reply(200, page);
        Reply(201, "<qsResponse><datasource id=\"d\"><project id=\"p\"/><owner id=\"o\"/><tags><tag label=\"x\"/></tags></datasource></qsResponse>");
        session->PublishExtract(Wide(path), L"Caf\u00E9", Wide(name), c.overwrite);
        ASSERT_EQ(c.pages.size() + 1, Sent().size());
        for (std::size_t i = 0; i < c.pages.size(); ++i)
            EXPECT_EQ("http://srv/api/2.0/sites/S/projects?pageSize=100&pageNumber=" + std::to_string(i + 1), Sent()[i].url);
        const SentRequest& upload = Sent().back();
        EXPECT_EQ(c.url + " T", upload.url + " " + upload.token);
        EXPECT_EQ(RestRequest::Post, upload.method);
        // The id arrives unescaped from the reply and goes out unescaped again.
        const auto framing = MultipartFraming(Boundary(upload.contentType),
            "<qsRequest><datasource name=\"" + name + "\" ><project id=\"p\"&7\" /></datasource></qsRequest>", "orvane_datasource", path);
        EXPECT_TRUE(framing.first + file + framing.second == upload.body) << upload.contentType;
        EXPECT_EQ(upload.body.size(), upload.announcedSize);
        EXPECT_EQ(Strings({"W Querying projects...", "W Publishing extract: " + path, "W Project name      : Caf\xC3\xA9",
                           "W Data source name  : " + name}), Log());
        EXPECT_TRUE(session->IsConnected());
    }
}

TEST_F(SessionTest, PublishOfAnUnknownProjectReadsEveryPageAndAFailingPageEndsIt)
{
    const std::string path = m_dir.File("a.qrx");
    WriteFileBytes(path, "x");
    auto session = Connected();
    Reply(200, PageReply(1, 150, Numbered("p", 100)));
    Reply(200, PageReply(2, 150, Numbered("q", 49, {{"sales", "1"}})));
    EXPECT_EQ("303 Project \"Sales\" doesn't exist on server", Outcome([&] { session->PublishExtract(Wide(path), L"Sales", L"ds", false); }));
    EXPECT_EQ(2u, Sent().size());
    EXPECT_EQ(Strings({"W Querying projects..."}), Log());
    Reply(200, PageReply(1, 150, Numbered("p", 99)));
    EXPECT_EQ("401 Item number mismatch", Outcome([&] { session->PublishExtract(Wide(path), L"p1", L"ds", false); }));
    EXPECT_EQ(3u, Sent().size());
    EXPECT_TRUE(session->IsConnected());
}

TEST_F(SessionTest, PublishChecksTheFileBeforeAnything)
{
    for (const char* name : {"a.qrx", "a.qrx.qrx", ".qrx", "a.QRX", "a.qrx.bak", "noext"})
        WriteFileBytes(m_dir.File(name), "x");
    const std::pair<std::string, bool> cases[] = {{m_dir.File("a.qrx"), true}, {m_dir.File("a.qrx.qrx"), true},
        {m_dir.File(".qrx"), true}, {m_dir.File("a.QRX"), false}, {m_dir.File("a.qrx.bak"), false},
        {m_dir.File("noext"), false}, {m_dir.File("missing.qrx"), false}, {"", false}};
    ServerConnection session;  // not signed in: a path that passes meets the project query's refusal
    for (const auto& [path, passes] : cases) {
        SCOPED_TRACE(path);
        EXPECT_EQ(passes ? "402 Connect must be called first" : "303 File \"" + path + "\" is either invalid or doesn't exist",
                  Outcome([&, p = path] { session.PublishExtract(Wide(p), L"p", L"d", true); }));
        EXPECT_EQ(passes ? Strings{"W Querying projects..."} : Strings{}, Log());
    }
    EXPECT_TRUE(Sent().empty());
}

TEST_F(SessionTest, PublishReplyShapes)
{
    const std::string path = m_dir.File("e.qrx");
    WriteFileBytes(path, "");
    const std::tuple<int64_t, const char*, const char*> cases[] = {
        {200, "<qsResponse/>", "ok"},
        {200, "<qsResponse><datasource><tags><tag/><tag/></tags><tags/></datasource></qsResponse>", "ok"},
        {200, "<qsResponse><datasource><owner><tag/></owner></datasource></qsResponse>", "ok"},  // judged by depth only
        {200, "", "300 "}, {200, "Created", "300 "}, {200, "<qsResponse><datasource>", "300 "},
        {200, "<qsResponse><project/></qsResponse>", "403 "},
        {200, "<qsResponse><datasource><tag/></datasource></qsResponse>", "403 "},
        {200, "<qsResponse><datasource><tags><owner/></tags></datasource></qsResponse>", "403 "},
        {200, "<qsResponse><datasource><tags><tag><x/></tag></tags></datasource></qsResponse>", "403 "},
        {200, "<error code=\"409093\"/>", "403 "},
        {409, "<error code=\"409093\"/>", "401 Server Response Code: 409"},
    };
    auto session = Connected();
    for (const auto& [status, reply, outcome] : cases) {
        SCOPED_TRACE(reply);
        Reply(status, reply);
        EXPECT_EQ(outcome, Outcome([&] { session->PublishExtractInternal(Wide(path), L"7", L"d", false); }));
        const auto framing = MultipartFraming(Boundary(Sent().back().contentType), kUploadXml, "orvane_datasource", path);
        EXPECT_EQ(framing.first + framing.second, Sent().back().body);
        EXPECT_TRUE(session->IsConnected());
    }
}
