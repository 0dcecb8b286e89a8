// The session layer byte for byte through the transport seam (NetworkFactory::s_creator): requests
// as the wire would carry them, the replies' shapes, the errors and the log lines.
#include "logging/Logger.h"
#include "network/CallContext.h"
#include "network/CurlNetworkException.h"
#include "network/NetworkFactory.h"
#include "rest/BufferReply.h"
#include "rest/RestRequest.h"
#include "server/ServerConnection.h"
#include "server/ServerException.h"
#include "sys/Unicode.h"
#include "tests/support/TestSupport.h"

#include <sys/stat.h>

#include <deque>

using namespace OrvaneInternal;
using namespace OrvaneTest;
using Strings = std::vector<std::string>;
using ProjectMap = std::unordered_map<std::wstring, std::wstring>;

namespace {

// Keeps every line queued, wide ones as "W " + UTF-8, narrow ones as "N ".
struct CapturingLogger : Logger {
    void QueueMessage(const std::wstring& message) override { lines.push_back("W " + Unicode::ToUTF8(message).str()); }
    void QueueMessage(const std::string& message) override { lines.push_back("N " + message); }
    void QueueMessage(std::wistream&) override { ADD_FAILURE(); }
    void QueueMessage(std::istream&) override { ADD_FAILURE(); }
    void Run() override {}
    void Flush() override {}
    void QueueStop() override {}
    const std::wstring& GetBaseFilePath() const override { return path; }
    Strings lines;
    std::wstring path;
};

// Records each request as "METHOD url|token|content type|body", the body read as libcurl would,
// and answers from a queue (status 0: fail with that libcurl text).
struct FakeNetwork : INetwork {
    void SetProxyCredentials(const std::string&, const std::string&) override {}
    void Send(RestRequest& r, RestReply& reply, CallContext&) override
    {
        const std::string body = r.m_body.m_parts.empty()
                                     ? ""
                                     : ReadInOddChunks([&](char* b, std::size_t n) { return r.m_body.Read(b, n); });
        sent.push_back((r.m_method == RestRequest::Get ? "GET " : "POST ") + r.m_url + "|" + r.m_token + "|" +
                       r.m_contentType + "|" + body);
        if (replies.empty())
            throw CurlNetworkException(std::string("unscripted request"));
        auto [status, text] = replies.front();
        replies.pop_front();
        if (status == 0)
            throw CurlNetworkException(text);
        for (std::size_t at = 0; at < text.size(); at += 5) // in pieces, as libcurl writes
            reply.Write(&text[at], std::min<std::size_t>(5, text.size() - at));
        reply.SetStatus(status);
    }
    std::deque<std::pair<int64_t, std::string>> replies;
    Strings sent;
};

std::string SigninReply(std::string token = "T", std::string site = "S")
{
    return "<qsResponse><credentials token=\"" + token + "\"><site id=\"" + site + "\"/></credentials></qsResponse>";
}
using Projects = std::vector<std::pair<std::string, std::string>>;
std::string PageReply(unsigned long page, unsigned long total, const Projects& projects)
{
    std::string xml = "<qsResponse><pagination pageNumber=\"" + std::to_string(page) +
                      "\" pageSize=\"100\" totalAvailable=\"" + std::to_string(total) + "\"/><projects>";
    for (const auto& [name, id] : projects)
        xml += "<project id=\"" + id + "\" name=\"" + name + "\"/>";
    return xml + "</projects></qsResponse>";
}
Projects Numbered(const std::string& prefix, int count, Projects projects = {})
{
    while (count-- > 0)
        projects.emplace_back(prefix + std::to_string(count), "id-" + prefix + std::to_string(count));
    return projects;
}
std::wstring Wide(const std::string& utf8)
{
    return Unicode::ToWideChar(utf8).str();
}
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
const char kPages[] = "GET http://srv/api/2.0/sites/S/projects?pageSize=100&pageNumber=";

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
    Strings Sent() { return std::exchange(m_net->sent, {}); }
    void Reply(int64_t status, const std::string& body) { m_net->replies.emplace_back(status, body); }
    // Signed in to http://srv with token T and site S; the sign-in's traffic and log are dropped.
    std::unique_ptr<ServerConnection> Connected()
    {
        auto session = std::make_unique<ServerConnection>();
        Reply(200, SigninReply());
        session->Connect(L"http://srv", L"alice", L"pw", L"");
        Sent();
        Log();
        return session;
    }

    std::shared_ptr<FakeNetwork> m_net = std::make_shared<FakeNetwork>();
    RefCntPtr<CapturingLogger> m_logger{new CapturingLogger()};
    TempDirectory m_dir{"orv-session"};
};

} // namespace

// Values go into the body verbatim; only trailing slashes leave the host.
TEST_F(SessionTest, SignInRequestAndTheRequestsAfterIt)
{
    const std::pair<const wchar_t*, const char*> hosts[] = {{L"https://srv:8443/base//", "https://srv:8443/base"},
                                                            {L"http://caf\u00E9/", "http://caf\xC3\xA9"},
                                                            {L"///", "///"},
                                                            {L"", ""}};
    for (const auto& [host, kept] : hosts) {
        SCOPED_TRACE(kept);
        ServerConnection session;
        Log(); // the previous session's close
        Reply(200, SigninReply("tok\xC3\xA9n", "site-1"));
        session.Connect(host, L"al\"i&ce", L"p<w\u00E9", L"Sales Site");
        EXPECT_EQ(Strings{"POST " + std::string(kept) +
                          "/api/2.0/auth/signin||text/xml|<qsRequest><credentials name=\"al\"i&ce\" "
                          "password=\"p<w\xC3\xA9\" ><site contentUrl=\"Sales Site\" /> </credentials></qsRequest>"},
                  Sent());
        EXPECT_EQ(Strings({std::string("W Connecting: ") + kept, "W Username  : al\"i&ce", "W Site ID   : Sales Site"}),
                  Log());
    }
}

// Statuses outside 200-299 and transport failures are explained in the log only; replies of other
// shapes (the parsers' robustness is fuzzed) give 300 when not XML, 403 for another document.
TEST_F(SessionTest, SignInOutcomes)
{
    const std::string error = "<error code=\"401001\"><summary>Signin Error</summary></error>";
    const std::tuple<int64_t, std::string, std::string, std::wstring> cases[] = {
        // status, reply, outcome, token|site
        {299, SigninReply(), "ok", L"T|S"},
        {300, error, "401 Server Response Code: 300", L"|"},
        {199, error, "401 Server Response Code: 199", L"|"},
        {(int64_t(1) << 32) + 200, error, "401 Server Response Code: 200",
         L"|"}, // shown as 32 bits, judged on the full value
        {0, "Couldn't resolve host name: caf\xC3\xA9", "400 Couldn't resolve host name: caf\xC3\xA9", L"|"},
        {200, "<qsResponse/>", "ok", L"|"},
        {200,
         "<qsResponse><credentials token=\"A\"/><credentials token=\"B\"><site "
         "id=\"\xE2\x82\xAC\"/></credentials></qsResponse>",
         "ok", L"B|\u20AC"},
        {200, "<qsResponse><credentials token=\"T\">", "300 ", L"|"},
        {200, "<error code=\"401\">Signin failed</error>", "403 ", L"|"},
        {200, "<qsResponse><credentials><site><x/></site></credentials></qsResponse>", "403 ", L"|"}};
    for (const auto& [status, reply, outcome, state] : cases) {
        SCOPED_TRACE(reply);
        ServerConnection session;
        Log();
        Reply(status, reply);
        EXPECT_EQ(outcome, Outcome([&, &s = session] { s.Connect(L"http://srv", L"u", L"p", L"s"); }));
        EXPECT_EQ(state, session.GetToken() + L"|" + session.GetSiteId());
        EXPECT_EQ(outcome == "ok", session.IsConnected());
        Strings log = {"W Connecting: http://srv", "W Username  : u", "W Site ID   : s"};
        if (status == 0)
            log.insert(log.end(), {"N Curl Error:", "N " + reply});
        else if (outcome.rfind("401", 0) == 0)
            log.insert(log.end(), {"W " + outcome.substr(4), "N Response:\n" + reply});
        EXPECT_EQ(log, Log());
    }
}

TEST_F(SessionTest, DisconnectReconnectAndCloseLogging)
{
    ServerConnection session;
    Reply(200, SigninReply("T1", "S1"));
    session.Connect(L"http://a/", L"u", L"p", L"");
    Log();
    Reply(200, SigninReply("T2", "S2"));
    session.Connect(L"http://b", L"v", L"q", L"x");
    EXPECT_EQ(Strings({"W About to disconnect: http://a", "W Disconnecting: http://a", "W Connecting: http://b",
                       "W Username  : v", "W Site ID   : x"}),
              Log());
    EXPECT_EQ(L"T2 S2", session.GetToken() + L" " + session.GetSiteId());
    session.Disconnect();
    session.Disconnect();
    EXPECT_EQ(Strings({"W Disconnecting: http://b", "W Disconnecting: "}), Log());
    EXPECT_EQ(2u, Sent().size()); // signing out is client-side
    ProjectMap projects;
    EXPECT_EQ("402 Connect must be called first", Outcome([&] { session.QueryProjects(1, projects); }));
    Connected().reset();
    EXPECT_EQ(Strings({"W Disconnecting: http://srv"}), Log());
}

TEST_F(SessionTest, QueryProjectsChecksEachPage)
{
    const std::string total = "<qsResponse><pagination pageNumber=\"1\" pageSize=\"100\" totalAvailable=\"";
    const std::string mismatch = "401 Item number mismatch";
    const std::string wrongPage = "401 PageNumber or pageSize mismatch";
    const std::tuple<unsigned long, std::string, std::string> cases[] = {
        // page, reply, outcome ("last n"/"more n": n projects)
        {1, PageReply(1, 0, {}), "last 0"},
        {1, PageReply(1, 100, Numbered("p", 100)), "last 100"},
        {2, PageReply(2, 101, Numbered("q", 1)), "last 1"},
        {1,
         "<qsResponse><pagination pageNumber=\" 1\" pageSize=\"+100\" totalAvailable=\"2 in all\" x=\"y\"/><projects>"
         "<project name=\"a\" id=\"1\" owner=\"o\"/><project id=\"2\" name=\"b\"/></projects></qsResponse>",
         "last 2"},
        {2, PageReply(2, 101, Numbered("q", 2)), mismatch},
        {1, PageReply(1, 101, Numbered("p", 99)), mismatch},
        {3, PageReply(3, 101, {}), mismatch},
        {1, PageReply(1, 2, {{"a", "1"}, {"a", "2"}}), mismatch},
        {1, PageReply(1, 2, {{"a", "1"}, {"", "2"}}), mismatch},
        {1, PageReply(1, 2, {{"a", "1"}, {"b", ""}}), mismatch},
        {1, PageReply(2, 0, {}), wrongPage},
        {1, "<qsResponse><pagination pageNumber=\"1\" pageSize=\"50\" totalAvailable=\"0\"/></qsResponse>", wrongPage},
        {1, "<qsResponse><projects/></qsResponse>", wrongPage},
        {18446744073709551615ul, PageReply(1, 0, {}), wrongPage},
        {1, "<qsResponse><projects><project name=\"a\" id=\"1\"><owner/></project></projects></qsResponse>", "403 "},
        {1, "<error code=\"404000\"/>", "403 "},
        {1, "Bad gateway", "300 "},
        {1, total + "many\"/></qsResponse>", "invalid_argument stoul"},
        {1, total + "18446744073709551616\"/></qsResponse>", "out_of_range stoul"},
    };
    auto session = Connected();
    for (const auto& [page, reply, expected] : cases) {
        SCOPED_TRACE(reply.substr(0, 120));
        Reply(200, reply);
        ProjectMap projects{{L"old", L"x"}}; // replaced on success, untouched on failure
        bool last = false;
        const unsigned long pageNumber = page;
        std::string outcome = Outcome([&] { last = session->QueryProjects(pageNumber, projects); });
        outcome = outcome != "ok" ? outcome + (projects.size() == 1 && projects.count(L"old") ? "" : " changed")
                                  : (last ? "last " : "more ") + std::to_string(projects.size()) +
                                        (projects.count(L"old") ? " merged" : "");
        EXPECT_EQ(expected, outcome);
        EXPECT_EQ(Strings{kPages + std::to_string(page) + "|T||"}, Sent());
    }
    EXPECT_TRUE(Log().empty());
    Reply(200,
          PageReply(7, 603,
                    {{"Caf\xC3\xA9", "id&amp;1"}, {"Sales", "2"}, {"sales", "3"}})); // unescaped, told apart by case
    ProjectMap projects;
    EXPECT_TRUE(session->QueryProjects(7, projects));
    EXPECT_EQ(ProjectMap({{L"Caf\u00E9", L"id&1"}, {L"Sales", L"2"}, {L"sales", L"3"}}), projects);
}

TEST_F(SessionTest, PublishPagesToTheProjectAndUploadsTheFile)
{
    const std::string file = std::string("\0head\r\n--not-a-boundary\r\n", 26) + Bytes(70000, 3);
    const std::string path = m_dir.File("extr\xC3\xA4kt.qrx");
    WriteFileBytes(path, file);
    const std::string name = "Q1 \"final\" & <more> \xC3\xBC";
    const std::string id = "p&quot;&amp;7";
    const std::string xml =
        "<qsRequest><datasource name=\"" + name + "\" ><project id=\"p\"&7\" /></datasource></qsRequest>";
    const std::vector<std::string> onePage{
        PageReply(1, 3, {{"Other", "1"}, {"Caf\xC3\xA9", id}, {"caf\xC3\xA9", "2"}})},
        threePages{PageReply(1, 250, Numbered("a", 100)), PageReply(2, 250, Numbered("b", 100)),
                   PageReply(3, 250, Numbered("c", 49, {{"Caf\xC3\xA9", id}}))};
    for (const auto& [pages, overwrite] : {std::pair(onePage, false), {threePages, true}}) {
        auto session = Connected();
        for (const std::string& page : pages)
            Reply(200, page);
        Reply(201, "<qsResponse><datasource id=\"d\"><project id=\"p\"/><owner id=\"o\"/><tags><tag "
                   "label=\"x\"/></tags></datasource></qsResponse>");
        session->PublishExtract(Wide(path), L"Caf\u00E9", Wide(name), overwrite);
        Strings expected;
        for (std::size_t i = 1; i <= pages.size(); ++i)
            expected.push_back(kPages + std::to_string(i) + "|T||");
        const Strings sent = Sent();
        // The boundary: 28 hyphens and 12 lower-case hex digits; the id goes out unescaped as it came.
        const std::string b = sent.back().substr(sent.back().find("boundary=") + 9, 40);
        EXPECT_TRUE(b.find_first_not_of('-') == 28 && b.find_first_not_of("0123456789abcdef", 28) == std::string::npos)
            << b;
        const auto framing = MultipartFraming(b, xml, "orvane_datasource", path);
        expected.push_back("POST http://srv/api/2.0/sites/S/datasources" +
                           std::string(overwrite ? "?overwrite=true" : "") + "|T|multipart/mixed; boundary=" + b + "|" +
                           framing.first + file + framing.second);
        EXPECT_TRUE(expected == sent) << "pages " << pages.size();
        EXPECT_EQ(Strings({"W Querying projects...", "W Publishing extract: " + path,
                           "W Project name      : Caf\xC3\xA9", "W Data source name  : " + name}),
                  Log());
    }
    // A failing page ends the publish.
    auto session = Connected();
    Reply(200, PageReply(1, 150, Numbered("p", 99)));
    EXPECT_EQ("401 Item number mismatch", Outcome([&] { session->PublishExtract(Wide(path), L"p1", L"d", false); }));
    EXPECT_EQ(1u, Sent().size());
    EXPECT_TRUE(session->IsConnected());
}

TEST_F(SessionTest, PublishChecksTheFileBeforeAnything)
{
    for (const char* name : {"a.qrx", "a.qrx.qrx", ".qrx", "a.QRX", "a.qrx.bak"})
        WriteFileBytes(m_dir.File(name), "x");
    // Only a regular file or a link to one passes: opening a FIFO would wait for a writer forever.
    ASSERT_TRUE(symlink(m_dir.File("a.qrx").c_str(), m_dir.File("link.qrx").c_str()) == 0 &&
                mkfifo(m_dir.File("fifo.qrx").c_str(), 0600) == 0 &&
                std::filesystem::create_directory(m_dir.File("dir.qrx")));
    ServerConnection session; // not signed in: a path that passes meets the project query's refusal
    for (const auto& [name, passes] : {std::pair("a.qrx.qrx", true),
                                       {".qrx", true},
                                       {"link.qrx", true},
                                       {"a.QRX", false},
                                       {"a.qrx.bak", false},
                                       {"", false},
                                       {"fifo.qrx", false},
                                       {"dir.qrx", false}}) {
        const std::string path = *name ? m_dir.File(name) : "";
        EXPECT_EQ(passes ? "402 Connect must be called first"
                         : "303 File \"" + path + "\" is either invalid or doesn't exist",
                  Outcome([&, p = passes] { session.PublishExtract(Wide(path), L"p", L"d", p); }));
        EXPECT_EQ(passes ? Strings{"W Querying projects..."} : Strings{}, Log()) << path;
    }
    EXPECT_TRUE(Sent().empty());
}
