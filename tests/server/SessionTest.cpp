// Sign-in, dispatch, sign-out and the session's life, through the recording
// transport: exact requests, log lines and errors.
#include "tests/server/SessionFixture.h"

#include <exception>
#include <stdexcept>

using namespace OrvaneInternal;
using namespace OrvaneTest;
using Strings = std::vector<std::string>;


TEST_F(SessionTest, ConstructionNeedsStartupButMakesTheTransportFirst)
{
    ServerConnection::s_initialized = false;
    EXPECT_EQ("404 Initialize() must be called before any other use.", Outcome([] { ServerConnection session; }));
    EXPECT_EQ(1, m_created);
    EXPECT_EQ(1, m_network.use_count());  // the refused session let its transport go

    // A failing factory's own exception comes out unchanged.
    ServerConnection::s_initialized = true;
    NetworkFactory::s_creator = []() -> std::shared_ptr<INetwork> { throw std::runtime_error("no transport"); };
    EXPECT_THROW(ServerConnection session, std::runtime_error);
    EXPECT_TRUE(Log().empty());
}

TEST_F(SessionTest, ConnectTrimsTrailingSlashesOnly)
{
    const struct {
        const wchar_t* host;
        const char* kept;
        const char* url;
    } cases[] = {
        {L"http://srv", "http://srv", "http://srv/api/2.0/auth/signin"},
        {L"http://srv/", "http://srv", "http://srv/api/2.0/auth/signin"},
        {L"http://srv///", "http://srv", "http://srv/api/2.0/auth/signin"},
        {L"https://srv:8443/base//", "https://srv:8443/base", "https://srv:8443/base/api/2.0/auth/signin"},
        {L"http://caf\u00E9/", "http://caf\xC3\xA9", "http://caf\xC3\xA9/api/2.0/auth/signin"},
        {L"/", "/", "//api/2.0/auth/signin"},
        {L"///", "///", "////api/2.0/auth/signin"},
        {L"", "", "/api/2.0/auth/signin"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.url);
        Sent().clear();
        Log();  // the previous session's close
        ServerConnection session;
        Net().Reply(200, SigninReply());
        session.Connect(c.host, L"u", L"p", L"s");
        ASSERT_EQ(1u, Sent().size());
        EXPECT_EQ(c.url, Sent()[0].url);
        EXPECT_EQ(c.kept, Unicode::ToUTF8(session.GetHost()).str());
        EXPECT_EQ(Strings({std::string("W Connecting: ") + c.kept, "W Username  : u", "W Site ID   : s"}), Log());
    }
}

TEST_F(SessionTest, SignInRequestAndStateAfterIt)
{
    ServerConnection session;
    Net().Reply(200, SigninReply("tok\xC3\xA9n", "site-1"));
    // Values go into the body verbatim, quotes and ampersands included.
    session.Connect(L"http://srv/", L"al\"i&ce", L"p<w\u00E9", L"");

    ASSERT_EQ(1u, Sent().size());
    const SentRequest& r = Sent()[0];
    EXPECT_EQ(RestRequest::Post, r.method);
    EXPECT_EQ("text/xml", r.contentType);
    EXPECT_EQ("", r.token);
    EXPECT_EQ("<qsRequest><credentials name=\"al\"i&ce\" password=\"p<w\xC3\xA9\" ><site contentUrl=\"\" /> "
              "</credentials></qsRequest>",
              r.body);
    EXPECT_EQ(r.body.size(), r.announcedSize);
    EXPECT_EQ(Strings({"W Connecting: http://srv", "W Username  : al\"i&ce", "W Site ID   : "}), Log());

    EXPECT_TRUE(session.IsConnected());
    EXPECT_EQ(L"tok\u00E9n", session.GetToken());
    EXPECT_EQ(L"site-1", session.GetSiteId());

    // Later requests carry the token and the site id.
    std::unordered_map<std::wstring, std::wstring> projects;
    Net().Reply(200, PageReply(1, 0, {}));
    EXPECT_TRUE(session.QueryProjects(1, projects));
    ASSERT_EQ(2u, Sent().size());
    EXPECT_EQ("tok\xC3\xA9n", Sent()[1].token);
    EXPECT_EQ("http://srv/api/2.0/sites/site-1/projects?pageSize=100&pageNumber=1", Sent()[1].url);

    Net().Reply(200, SigninReply());
    session.Connect(L"http://srv", L"bob", L"x", L"Sales Site");
    EXPECT_EQ("<qsRequest><credentials name=\"bob\" password=\"x\" ><site contentUrl=\"Sales Site\" /> "
              "</credentials></qsRequest>",
              Sent().back().body);
}

TEST_F(SessionTest, SignInReplyShapes)
{
    const struct {
        const char* reply;
        const char* outcome;
        const wchar_t* token;
        const wchar_t* siteId;
    } cases[] = {
        {"<qsResponse><credentials token=\"T\"><site id=\"S\" contentUrl=\"\"/><user id=\"U\"/></credentials>"
         "</qsResponse>",
         "ok", L"T", L"S"},
        {"<qsResponse><credentials><site/></credentials></qsResponse>", "ok", L"", L""},
        {"<qsResponse/>", "ok", L"", L""},
        {"<qsResponse><credentials token=\"A\"/><credentials token=\"B\"><site id=\"\xE2\x82\xAC\"/></credentials>"
         "</qsResponse>",
         "ok", L"B", L"\u20AC"},
        {"", "300 ", L"", L""},
        {"Service unavailable", "300 ", L"", L""},
        {"<qsResponse><credentials token=\"T\">", "300 ", L"", L""},
        {"<error code=\"401\">Signin failed</error>", "403 ", L"", L""},
        {"<QSRESPONSE/>", "403 ", L"", L""},
        {"<qsResponse><site id=\"S\"/></qsResponse>", "403 ", L"", L""},
        {"<qsResponse><credentials><owner/></credentials></qsResponse>", "403 ", L"", L""},
        {"<qsResponse><credentials><site><x/></site></credentials></qsResponse>", "403 ", L"", L""},
        {"<qsResponse><credentials><user><x/></user></credentials></qsResponse>", "403 ", L"", L""},
        // The handler's refusal arrives, not the later syntax error.
        {"<bad><", "403 ", L"", L""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reply);
        ServerConnection session;
        Net().Reply(200, c.reply);
        EXPECT_EQ(c.outcome, Outcome([&] { session.Connect(L"http://srv/", L"u", L"p", L""); }));
        EXPECT_EQ(std::string(c.outcome) == "ok", session.IsConnected());
        EXPECT_EQ(L"http://srv", session.GetHost());  // kept also from a failed attempt
        EXPECT_EQ(c.token, session.GetToken());
        EXPECT_EQ(c.siteId, session.GetSiteId());
    }
}

TEST_F(SessionTest, StatusOutsideSuccessRangeIsRefusedAndLogged)
{
    const struct {
        int64_t status;
        const char* text;  // empty when accepted
    } cases[] = {
        {200, ""},
        {299, ""},
        {300, "Server Response Code: 300"},
        {199, "Server Response Code: 199"},
        {-200, "Server Response Code: -200"},
        // Reported as a 32-bit number, but judged on the full value.
        {(int64_t(1) << 32) + 200, "Server Response Code: 200"},
    };
    const std::string errorDocument = "<error code=\"401001\"><summary>Signin Error</summary></error>";
    for (const auto& c : cases) {
        SCOPED_TRACE(c.status);
        const bool accepted = std::string(c.text).empty();
        ServerConnection session;
        Log();
        Net().Reply(c.status, accepted ? SigninReply() : errorDocument);
        const std::string outcome = Outcome([&] { session.Connect(L"http://srv", L"u", L"p", L"s"); });
        EXPECT_EQ(accepted, session.IsConnected());
        Strings log = {"W Connecting: http://srv", "W Username  : u", "W Site ID   : s"};
        if (accepted) {
            EXPECT_EQ("ok", outcome);
        } else {
            EXPECT_EQ(std::string("401 ") + c.text, outcome);
            EXPECT_EQ(L"", session.GetToken());
            log.push_back(std::string("W ") + c.text);
            log.push_back("N Response:\n" + errorDocument);  // the server's explanation goes to the log only
        }
        EXPECT_EQ(log, Log());
    }
}

TEST_F(SessionTest, TransportFailureBecomesNetworkError)
{
    ServerConnection session;
    Net().Fail("Couldn't resolve host name: caf\xC3\xA9");
    EXPECT_EQ("400 Couldn't resolve host name: caf\xC3\xA9",
              Outcome([&] { session.Connect(L"http://srv", L"u", L"p", L""); }));
    EXPECT_EQ(Strings({"W Connecting: http://srv", "W Username  : u",
                       "W Site ID   : ", "N Curl Error:", "N Couldn't resolve host name: caf\xC3\xA9"}),
              Log());
    EXPECT_FALSE(session.IsConnected());
    EXPECT_EQ(L"http://srv", session.GetHost());
}

TEST_F(SessionTest, SendRefusesUnknownReplyTypeBeforeSending)
{
    ServerConnection session;
    EXPECT_EQ("301 Unknown REST reply type", Outcome([&] { session.Send(AnyMsg(ReqMsg::Buffer, RestRequest::Post, ReqMsg::Unknown)); }));
    EXPECT_TRUE(Sent().empty());
    EXPECT_TRUE(Log().empty());

    // The conversion runs first, so its failure wins over the reply type.
    EXPECT_THROW(session.Send(AnyMsg(ReqMsg::Multipart, RestRequest::Post, ReqMsg::Unknown, L"/nonexistent/x.qrx")),
                 RestIO::RestIOException);
    EXPECT_TRUE(Sent().empty());

    // An accepted exchange with an empty body hands back the empty text.
    Net().Reply(204, "");
    EXPECT_EQ("", session.Send(AnyMsg(ReqMsg::Buffer, RestRequest::Post)));
    ASSERT_EQ(1u, Sent().size());
    EXPECT_EQ("http://h/\xC3\xA4?q=1 t\xC3\xB6k <r a=\"\xE2\x82\xAC\"/>",
              Sent()[0].url + " " + Sent()[0].token + " " + Sent()[0].body);
}

TEST_F(SessionTest, DisconnectReconnectAndCloseLogging)
{
    {
        ServerConnection never;
        never.Disconnect();
        never.Disconnect();
        EXPECT_FALSE(never.IsConnected());
    }
    // Closing a session that is not connected logs nothing more.
    EXPECT_EQ(Strings({"W Disconnecting: ", "W Disconnecting: "}), Log());

    {
        ServerConnection failed;
        Net().Reply(500, "");
        EXPECT_EQ("401 Server Response Code: 500", Outcome([&] { failed.Connect(L"http://a/", L"u", L"p", L""); }));
        Log();
    }
    EXPECT_TRUE(Log().empty());  // a failed sign-in is not disconnected on close

    ServerConnection session;
    Net().Reply(200, SigninReply("T1", "S1"));
    session.Connect(L"http://a/", L"u", L"p", L"");
    Log();
    Net().Reply(200, SigninReply("T2", "S2"));
    session.Connect(L"http://b", L"v", L"q", L"x");
    EXPECT_EQ(Strings({"W About to disconnect: http://a", "W Disconnecting: http://a", "W Connecting: http://b",
                       "W Username  : v", "W Site ID   : x"}),
              Log());
    EXPECT_EQ(L"T2", session.GetToken());
    EXPECT_EQ(L"S2", session.GetSiteId());

    session.Disconnect();
    session.Disconnect();
    EXPECT_EQ(Strings({"W Disconnecting: http://b", "W Disconnecting: "}), Log());
    EXPECT_FALSE(session.IsConnected());
    EXPECT_EQ(L"", session.GetHost());
    EXPECT_EQ(L"", session.GetToken());
    EXPECT_EQ(L"", session.GetSiteId());
    EXPECT_EQ(3u, Sent().size());  // the three sign-ins only: signing out is client-side

    std::unordered_map<std::wstring, std::wstring> projects;
    EXPECT_EQ("402 Connect must be called first", Outcome([&] { session.QueryProjects(1, projects); }));
    EXPECT_EQ(3u, Sent().size());

    auto closing = std::make_unique<ServerConnection>();
    Net().Reply(200, SigninReply());
    closing->Connect(L"https://c//", L"u", L"p", L"");
    Log();
    closing.reset();
    EXPECT_EQ(Strings({"W Disconnecting: https://c"}), Log());
}

TEST(ServerException, CodesMessagesNarrowTextAndNoStdExceptionHandler)
{
    const ServerException bare(ServerException::ResponseParseFailed);
    EXPECT_EQ(300, bare.getErrorCode());
    EXPECT_TRUE(bare.getMessage().empty());
    EXPECT_EQ("", bare.getCharMessage());
    const ServerException named(ServerException::InvalidPublishInput, L"Project \"Caf\u00E9 \U0001F600\"");
    EXPECT_EQ(303, named.getErrorCode());
    EXPECT_EQ("Project \"Caf\xC3\xA9 \xF0\x9F\x98\x80\"", named.getCharMessage());
    bool caughtAsStd = false;
    try {
        try {
            throw ServerException(ServerException::NotConnected, L"Connect must be called first");
        } catch (const std::exception&) {
            caughtAsStd = true;
        }
    } catch (const ServerException& e) {
        EXPECT_EQ(L"Connect must be called first", e.getMessage());
    }
    EXPECT_FALSE(caughtAsStd);
}
