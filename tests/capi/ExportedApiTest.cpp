// The exported functions as a program linked against libOrvaneServer meets them: argument and handle
// checks, start-up and shutdown, handles kept past Cleanup, fork, secrets kept out of the log, the
// system proxy and TLS, and many threads at once.
#include "tests/support/TestSupport.h"

#include <set>

using namespace OrvaneTest;

namespace {

struct Call {
    std::string what;
    std::function<ORV_RESULT()> call;
    ORV_RESULT result;
    std::string error;
};
void ExpectCalls(const std::vector<Call>& calls)
{
    for (const Call& c : calls) {
        OrvSetLastErrorMessage(L"left by an earlier call");
        EXPECT_EQ(c.result, c.call()) << c.what;
        EXPECT_EQ(c.error, LastError()) << c.what;
    }
}
// The four calls that take a handle, with empty strings (not null: they pass the argument checks).
std::vector<Call> HandleCalls(const std::string& kind, void* h, ORV_RESULT result, const std::string& error)
{
    static const unsigned short e[1] = {0};
    return {{kind + " connect", [=] { return OrvServerConnectionConnect(h, e, e, e, e); }, result, error},
            {kind + " publish", [=] { return OrvServerConnectionPublishExtract(h, e, e, e, 1); }, result, error},
            {kind + " disconnect", [=] { return OrvServerConnectionDisconnect(h); }, result, error},
            {kind + " proxy", [=] { return OrvServerConnectionSetProxyCredentials(h, e, e); }, result, error}};
}
class ExportedApiTest : public StartedTest {
  protected:
    Connection m_c;
};
using StartupApiTest = LibraryTest;

} // namespace

TEST_F(ExportedApiTest, NullArgumentsAreNamedInOrderBeforeTheHandleAndBadHandlesAreRefused)
{
    int notAHandle = 0;
    void *unknown = &notAHandle, *closed = nullptr;
    static const unsigned short x[2] = {'x', 0};
    const ORV_RESULT invalid = ORV_RESULT_InvalidArgument;
    std::vector<Call> calls{
        {"connect", [] { return OrvServerConnectionConnect(nullptr, nullptr, nullptr, nullptr, nullptr); }, invalid,
         "Invalid argument 'host'"},
        {"connect, host", [] { return OrvServerConnectionConnect(nullptr, x, nullptr, nullptr, nullptr); }, invalid,
         "Invalid argument 'username'"},
        {"connect, user", [] { return OrvServerConnectionConnect(nullptr, x, x, nullptr, nullptr); }, invalid,
         "Invalid argument 'password'"},
        {"connect, password", [&] { return OrvServerConnectionConnect(unknown, x, x, x, nullptr); }, invalid,
         "Invalid argument 'siteID'"},
        {"publish", [] { return OrvServerConnectionPublishExtract(nullptr, nullptr, nullptr, nullptr, 0); }, invalid,
         "Invalid argument 'path'"},
        {"publish, path", [] { return OrvServerConnectionPublishExtract(nullptr, x, nullptr, nullptr, 1); }, invalid,
         "Invalid argument 'projectName'"},
        {"publish, project", [&] { return OrvServerConnectionPublishExtract(unknown, x, x, nullptr, 1); }, invalid,
         "Invalid argument 'datasourceName'"},
        {"proxy", [] { return OrvServerConnectionSetProxyCredentials(nullptr, nullptr, nullptr); }, invalid,
         "Invalid argument 'username'"},
        {"proxy, user", [&] { return OrvServerConnectionSetProxyCredentials(unknown, x, nullptr); }, invalid,
         "Invalid argument 'password'"},
    };
    Connection other;
    ASSERT_EQ(ORV_RESULT_Success, OrvServerConnectionCreate(&closed));
    ASSERT_EQ(ORV_RESULT_Success, other.Create());
    OrvSetLastErrorMessage(L"earlier failure");
    ASSERT_EQ(ORV_RESULT_Success, OrvServerConnectionClose(closed));
    EXPECT_EQ("earlier failure", LastError()); // success leaves the last error alone
    for (const auto& [kind, handle] : {std::pair("null", (void*)nullptr), {"unknown", unknown}, {"closed", closed}}) {
        for (const Call& call : HandleCalls(kind, handle, ORV_RESULT_BadHandle, "Invalid ServerConnection handle"))
            calls.push_back(call);
        // Close alone sets no message when it refuses.
        calls.push_back({std::string(kind) + " close", [h = handle] { return OrvServerConnectionClose(h); },
                         ORV_RESULT_BadHandle, "left by an earlier call"});
    }
    const unsigned short lone[] = {'h', 0xD800, 0}; // a lone surrogate cannot become UTF-8
    calls.insert(calls.end(), {{"not signed in", [&] { return other.Publish(Extract("x.qrx", "x"), "p", "d", 0); }, 402,
                                "Connect must be called first"},
                               {"ill-formed text",
                                [&] { return OrvServerConnectionConnect(other.Handle(), lone, lone, lone, lone); },
                                ORV_RESULT_UnknownError, "Unknown error"}});
    ExpectCalls(calls);
    EXPECT_EQ(ORV_RESULT_Success, OrvServerConnectionDisconnect(other.Handle())); // closing one left the other
    std::string elsewhere;                                                        // the last error is kept per thread
    std::thread([&] {
        OrvServerConnectionDisconnect(nullptr);
        elsewhere = LastError();
    }).join();
    EXPECT_EQ("Invalid ServerConnection handle Unknown error", elsewhere + " " + LastError());
}

TEST_F(StartupApiTest, CreateNeedsAStartedLibraryAndLeavesTheHandleAloneWhenRefused)
{
    int sentinel = 0;
    void* handle = &sentinel;
    for (int round = 0; round < 2; ++round) { // before the first start, and after a stop
        EXPECT_EQ(404, OrvServerConnectionCreate(&handle));
        EXPECT_EQ("Initialize() must be called before any other use.", LastError());
        EXPECT_EQ(static_cast<void*>(&sentinel), handle);
        Start();
        Start(); // no nesting count: one Cleanup stops
        ASSERT_EQ(ORV_RESULT_Success, OrvServerAPICleanup());
    }
    // A log that cannot be opened: directories take all ten names it may have.
    for (int n = 0; n <= 9; ++n) {
        const std::string name =
            m_dir.File(n ? "OrvaneSDKServer_" + std::to_string(n) + ".log" : "OrvaneSDKServer.log");
        std::filesystem::remove(name);
        std::filesystem::create_directory(name);
    }
    EXPECT_EQ(ORV_RESULT_UnknownError, OrvServerAPIInitialize());
    EXPECT_EQ("Unknown error", LastError());
    EXPECT_EQ(404, OrvServerConnectionCreate(&handle));
}

// A handle kept past Cleanup still answers and closes; after a restart the library publishes again.
TEST_F(StartupApiTest, HandleKeptPastCleanupAndARestart)
{
    TestHttpServer server(PublishScript({Response(201).Body(kPublishReply)}));
    const std::string path = Extract("after.qrx", "after cleanup");
    Start();
    Connection kept, fresh;
    ASSERT_EQ(ORV_RESULT_Success, kept.Create());
    ASSERT_EQ(ORV_RESULT_Success, kept.Connect(server.BaseUrl(), "u", "p"));
    ASSERT_EQ(ORV_RESULT_Success, OrvServerAPICleanup());
    OrvSetLastErrorMessage(L"");
    const ORV_RESULT published = kept.Publish(path, "Sales", "d", 0);
    EXPECT_TRUE(published == ORV_RESULT_Success || !LastError().empty()) << published;
    EXPECT_EQ(ORV_RESULT_Success, kept.SetProxyCredentials("a", "b"));
    EXPECT_EQ(ORV_RESULT_Success, OrvServerConnectionDisconnect(kept.Handle()));
    EXPECT_EQ(ORV_RESULT_Success, kept.Close());
    Start();
    ASSERT_EQ(ORV_RESULT_Success, fresh.Create());
    EXPECT_EQ(ORV_RESULT_Success, fresh.Connect(server.BaseUrl(), "u", "p"));
    EXPECT_EQ(ORV_RESULT_Success, fresh.Publish(path, "Sales", "d", 0)) << LastError();
}

// A child forked after start-up, which gets a writer of its own, ends when it ends normally without
// Cleanup: its exit drains and joins that writer, never the parent's.
TEST_F(ExportedApiTest, ForkedChildEndsNormally)
{
    ASSERT_TRUE(WaitUntil([&] {
        return ReadFileBytes(m_dir.File("OrvaneSDKServer.log")).find("Curl global initialization") != std::string::npos;
    }));
    std::fflush(nullptr);
    const pid_t child = fork();
    ASSERT_LE(0, child);
    if (child == 0)
        std::exit(0);
    int status = -1;
    const bool ended = WaitUntil([&] { return waitpid(child, &status, WNOHANG) == child; });
    if (!ended) {
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
    }
    EXPECT_TRUE(ended && WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << (ended ? "wait status " : "hung, killed; ") << status;
}

// Neither password reaches the log in any form, whatever becomes of the sign-in: accepted, refused,
// cut off, challenged, answered with proxy credentials, refused by a proxy that wants its own.
TEST_F(ExportedApiTest, PasswordsNeverReachTheLog)
{
    const std::u16string password = u"Zq8-h1dden-\u00fc\u20ac\U0001D11E";
    const std::u16string proxyPassword = u"Kx3-pr0xy-\u00df\u2713";
    const std::u16string relay = u"Tp5-r3lay-s3cret";
    TestHttpServer accepting(PublishScript({Response(201).Body(kPublishReply)}));
    TestHttpServer refusing(
        Script().Sequence("/api/2.0/auth/signin",
                          {Response(401), Response(200).CloseWithoutAnswer(),
                           Response(200).Body(kSignInReply).RequireBasicAuth("relay", u8"Kx3-pr0xy-\u00df\u2713")}));
    TinyProxy proxy(ProxyOptions{"relay", "Tp5-r3lay-s3cret"}); // it takes ASCII only
    const auto connect = [&](const TestHttpServer& server) {
        return [&, url = server.BaseUrl()] {
            return OrvServerConnectionConnect(m_c.Handle(), U(url).c_str(), U("reporter").c_str(),
                                              (const unsigned short*)password.c_str(), U("").c_str());
        };
    };
    const auto proxyCredentials = [&](const std::u16string& secret) {
        return [&, secret] {
            return OrvServerConnectionSetProxyCredentials(m_c.Handle(), U("relay").c_str(),
                                                          (const unsigned short*)secret.c_str());
        };
    };
    const std::string extract = Extract("secret.qrx", "extract bytes");
    const auto publish = [&] { return m_c.Publish(extract, "Sales", "secret", 1); };
    const std::vector<std::pair<std::function<ORV_RESULT()>, std::set<ORV_RESULT>>> steps{
        {connect(accepting), {0}},
        {publish, {0}},
        {connect(refusing), {401}},
        {connect(refusing), {400}},
        {connect(refusing), {401}},
        {proxyCredentials(proxyPassword), {0}},
        {connect(refusing), {0}},
        {[&] { return m_c.Close(), m_c.Create(); }, {0}},
        {[&] { return SetProxyEnvironment(proxy.Url()), 0; }, {0}},
        {connect(accepting), {400, 401}},
        {proxyCredentials(relay), {0}},
        {connect(accepting), {0}},
        {publish, {0}}}; // the proxy's
    ASSERT_EQ(ORV_RESULT_Success, m_c.Create());
    for (std::size_t i = 0; i < steps.size(); ++i) { // refusals close the connection under the body: one or the other
        const ORV_RESULT result = steps[i].first();
        EXPECT_EQ(1u, steps[i].second.count(result)) << "step " << i << ": " << result << " " << LastError();
    }
    EXPECT_GE(proxy.ForwardedConnections(), 2u);
    // The secrets did go out, so their absence from the log means something.
    EXPECT_NE(std::string::npos,
              accepting.Requests().at(0).body.find(u8"password=\"Zq8-h1dden-\u00fc\u20ac\U0001D11E\""));
    const std::string log = StopAndReadLog();
    ASSERT_NE(std::string::npos, log.find("): Server returned nothing (no headers, no data)\n")) << log;
    // Not even the ASCII core of a password, in UTF-8 or UTF-16, nor Basic credentials ("reporter:", "relay:" in
    // base64).
    for (const std::string core : {"Zq8-h1dde", "Kx3-pr0xy", "Tp5-r3lay"}) {
        std::string utf16;
        for (char c : core)
            utf16 += std::string{c, '\0'};
        for (const std::string& form : {core, utf16, std::string("cmVwb3J0ZXI6"), std::string("cmVsYXk6")})
            EXPECT_EQ(std::string::npos, log.find(form)) << form;
    }
}

// The system proxy as Qt finds it, read afresh for every request: a host named in no_proxy goes
// direct, others through the proxy; https is tunnelled, and a self-signed server is refused: the
// platform's certificate stores are empty, so libcurl's own bundle decides.
TEST_F(ExportedApiTest, SystemProxyAndTls)
{
    TestHttpServer plain(PublishScript({})), tls(Script(), {true, true});
    TinyProxy proxy;
    ASSERT_EQ(ORV_RESULT_Success, m_c.Create());
    for (const char* noProxy : {"127.0.0.1", ""}) {
        SetProxyEnvironment(proxy.Url(), noProxy);
        EXPECT_EQ(ORV_RESULT_Success, m_c.Connect(plain.BaseUrl(), "u", "p")) << LastError();
        EXPECT_EQ(!*noProxy,
                  plain.Requests().back().HeaderValue("Via").value_or("").find("orv-test-proxy") != std::string::npos);
        EXPECT_EQ(ORV_RESULT_Success, OrvServerConnectionDisconnect(m_c.Handle()));
    }
    SetProxyEnvironment(proxy.Url());
    EXPECT_EQ(400, m_c.Connect(tls.BaseUrl(), "u", "p"));
    EXPECT_EQ("SSL peer certificate or SSH remote key was not OK", LastError());
    EXPECT_EQ((std::vector<std::string>{"POST " + plain.Url("/api/2.0/auth/signin") + " HTTP/1.1",
                                        "CONNECT 127.0.0.1:" + std::to_string(tls.Port()) + " HTTP/1.1"}),
              proxy.RequestLines());
}

// Sixteen threads run fifty cycles of create, connect, publish, disconnect and close each.
TEST_F(ExportedApiTest, SixteenThreadsPublishAtOnce)
{
    constexpr int kThreads = 16, kCycles = 50;
    ReferenceServer server(
        R"({"users": [{"name": "soak", "password": "soak-pw"}], "sites": [{"contentUrl": "", "projects": ["Soak"]}]})");
    const auto name = [](int t, int c) { return "t" + std::to_string(t) + "-c" + std::to_string(c); };
    const auto content = [](int t, int c) { return Bytes(100 + 37 * t + c, static_cast<unsigned>(t * 1000 + c)); };
    std::vector<std::string> failures(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int c = 0; c < kCycles && failures[t].empty(); ++c) {
                Connection connection;
                ORV_RESULT rc = connection.Create();
                rc = rc ? rc : connection.Connect(server.Url(), "soak", "soak-pw");
                rc = rc ? rc : connection.Publish(Extract(name(t, c) + ".qrx", content(t, c)), "Soak", name(t, c), 0);
                rc = rc ? rc : OrvServerConnectionDisconnect(connection.Handle());
                rc = rc ? rc : connection.Close();
                failures[t] = rc ? name(t, c) + ": " + std::to_string(rc) + " " + LastError() : "";
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    for (std::size_t i = 0; i < failures.size(); ++i)
        EXPECT_EQ("", failures[i]) << "thread " << i;
    for (int t = 0; t < kThreads; ++t)
        for (int c = 0; c < kCycles; ++c)
            EXPECT_EQ(content(t, c), server.Stored("Soak", name(t, c))) << name(t, c);
}
