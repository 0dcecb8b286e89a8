// The exported functions as a program linked against libOrvaneServer meets them: argument and
// handle checks, start-up and shutdown, the reference server, secrets, threads and fork.
#include "tests/support/TestSupport.h"

#include <climits>
#include <mutex>
#include <set>
#include <shared_mutex>

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
        SCOPED_TRACE(c.what);
        OrvSetLastErrorMessage(L"left by an earlier call");
        EXPECT_EQ(c.result, c.call());
        EXPECT_EQ(c.error, LastError());
    }
}
// The calls that take a handle, with empty strings (not null: they pass the argument checks).
std::vector<Call> HandleCalls(const std::string& kind, void* h, ORV_RESULT result, const std::string& error)
{
    static const Utf16 empty;
    const unsigned short* e = empty.c_str();
    return {{kind + " connect", [=] { return OrvServerConnectionConnect(h, e, e, e, e); }, result, error},
            {kind + " publish", [=] { return OrvServerConnectionPublishExtract(h, e, e, e, 1); }, result, error},
            {kind + " disconnect", [=] { return OrvServerConnectionDisconnect(h); }, result, error},
            {kind + " proxy", [=] { return OrvServerConnectionSetProxyCredentials(h, e, e); }, result, error}};
}
std::string Base64(const std::string& bytes)
{
    static const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::string three = bytes.substr(i, 3) + std::string(2, '\0');
        const std::uint32_t v = std::uint32_t(std::uint8_t(three[0])) << 16 | std::uint8_t(three[1]) << 8 | std::uint8_t(three[2]);
        for (std::size_t k = 0; k < 4; ++k)
            out += k <= bytes.size() - i ? alphabet[(v >> (18 - 6 * k)) & 63] : '=';
    }
    return out;
}
using ExportedApiTest = StartedTest;
using StartupApiTest = LibraryTest;

}  // namespace

TEST_F(ExportedApiTest, NullArgumentsAreNamedInOrderBeforeTheHandleAndBadHandlesAreRefused)
{
    int notAHandle = 0;
    void* unknown = &notAHandle;
    const Utf16 s = U("x");
    const unsigned short* x = s.c_str();
    const ORV_RESULT invalid = ORV_RESULT_InvalidArgument;
    std::vector<Call> calls{
        {"connect, all null", [] { return OrvServerConnectionConnect(nullptr, nullptr, nullptr, nullptr, nullptr); }, invalid, "Invalid argument 'host'"},
        {"connect, host", [&] { return OrvServerConnectionConnect(nullptr, x, nullptr, nullptr, nullptr); }, invalid, "Invalid argument 'username'"},
        {"connect, host, user", [&] { return OrvServerConnectionConnect(nullptr, x, x, nullptr, nullptr); }, invalid, "Invalid argument 'password'"},
        {"connect, unknown handle", [&] { return OrvServerConnectionConnect(unknown, x, x, x, nullptr); }, invalid, "Invalid argument 'siteID'"},
        {"publish, all null", [] { return OrvServerConnectionPublishExtract(nullptr, nullptr, nullptr, nullptr, 0); }, invalid, "Invalid argument 'path'"},
        {"publish, path", [&] { return OrvServerConnectionPublishExtract(nullptr, x, nullptr, nullptr, 1); }, invalid, "Invalid argument 'projectName'"},
        {"publish, unknown handle", [&] { return OrvServerConnectionPublishExtract(unknown, x, x, nullptr, 1); }, invalid, "Invalid argument 'datasourceName'"},
        {"proxy, all null", [] { return OrvServerConnectionSetProxyCredentials(nullptr, nullptr, nullptr); }, invalid, "Invalid argument 'username'"},
        {"proxy, unknown handle", [&] { return OrvServerConnectionSetProxyCredentials(unknown, x, nullptr); }, invalid, "Invalid argument 'password'"},
    };
    void* closed = nullptr;
    Connection other;
    ASSERT_EQ(ORV_RESULT_Success, OrvServerConnectionCreate(&closed));
    ASSERT_EQ(ORV_RESULT_Success, other.Create());
    OrvSetLastErrorMessage(L"earlier failure");
    ASSERT_EQ(ORV_RESULT_Success, OrvServerConnectionClose(closed));
    EXPECT_EQ("earlier failure", LastError());  // success leaves the last error alone
    for (const auto& [kind, handle] : std::vector<std::pair<std::string, void*>>{{"null", nullptr}, {"unknown", unknown}, {"closed", closed}}) {
        for (const Call& call : HandleCalls(kind, handle, ORV_RESULT_BadHandle, "Invalid ServerConnection handle"))
            calls.push_back(call);
        // Close alone sets no message when it refuses.
        calls.push_back({kind + " close", [h = handle] { return OrvServerConnectionClose(h); }, ORV_RESULT_BadHandle, "left by an earlier call"});
    }
    ExpectCalls(calls);
    EXPECT_EQ(ORV_RESULT_Success, OrvServerConnectionDisconnect(other.Handle()));  // closing one left the other
}

TEST_F(StartupApiTest, CreateNeedsAStartedLibraryAndLeavesTheHandleAloneWhenRefused)
{
    const std::vector<ORV_RESULT> codes{ORV_RESULT_Success, ORV_RESULT_InvalidArgument, ORV_RESULT_BadHandle,
                                        ORV_RESULT_UnknownError, 300, 301, 303, 400, 401, 402, 403, 404};
    EXPECT_EQ(codes.size(), std::set<ORV_RESULT>(codes.begin(), codes.end()).size());
    int sentinel = 0;
    void* handle = &sentinel;
    for (int round = 0; round < 2; ++round) {  // before the first start, and after a stop
        EXPECT_EQ(404, OrvServerConnectionCreate(&handle));
        EXPECT_EQ("Initialize() must be called before any other use.", LastError());
        EXPECT_EQ(static_cast<void*>(&sentinel), handle);
        Start();
        Start();  // no nesting count: one Cleanup stops
        ASSERT_EQ(ORV_RESULT_Success, OrvServerAPICleanup());
    }
    Start();
    ASSERT_EQ(ORV_RESULT_Success, OrvServerConnectionCreate(&handle));
    EXPECT_EQ(ORV_RESULT_Success, OrvServerConnectionClose(handle));
}

TEST_F(StartupApiTest, LogThatCannotBeOpenedIsAnUnknownErrorAndTheLibraryStaysStopped)
{
    // Directories take all ten names the log may have (root ignores file modes, not this).
    for (int n = 0; n <= 9; ++n)
        ASSERT_TRUE(std::filesystem::create_directory(m_dir.File(n ? "OrvaneSDKServer_" + std::to_string(n) + ".log" : "OrvaneSDKServer.log")));
    EXPECT_EQ(ORV_RESULT_UnknownError, OrvServerAPIInitialize());
    EXPECT_EQ("Unknown error", LastError());
    void* handle = nullptr;
    EXPECT_EQ(404, OrvServerConnectionCreate(&handle));
    std::filesystem::remove(m_dir.File("OrvaneSDKServer_9.log"));
    Start();
    ASSERT_EQ(ORV_RESULT_Success, OrvServerConnectionCreate(&handle));
    EXPECT_EQ(ORV_RESULT_Success, OrvServerConnectionClose(handle));
}

// A handle the caller kept past Cleanup: what each call then gives, and Close still frees it.
TEST_F(StartupApiTest, HandleKeptPastCleanup)
{
    TestHttpServer server(PublishScript({Response(201).Body(kPublishReply)}));
    Start();
    Connection connection;
    ASSERT_EQ(ORV_RESULT_Success, connection.Create());
    ASSERT_EQ(ORV_RESULT_Success, connection.Connect(server.BaseUrl(), "u", "p"));
    ASSERT_EQ(ORV_RESULT_Success, OrvServerAPICleanup());
    const std::string path = Extract("after.qrx", "after cleanup");
    OrvSetLastErrorMessage(L"");
    const ORV_RESULT published = connection.Publish(path, "Sales", "d", 0);
    EXPECT_TRUE(published == ORV_RESULT_Success || !LastError().empty()) << published;
    EXPECT_EQ(ORV_RESULT_Success, connection.SetProxyCredentials("a", "b"));
    EXPECT_EQ(ORV_RESULT_Success, OrvServerConnectionDisconnect(connection.Handle()));
    EXPECT_EQ(ORV_RESULT_Success, connection.Close());
    void* handle = nullptr;
    EXPECT_EQ(404, OrvServerConnectionCreate(&handle));
}

// A child forked after start-up that ends normally must end: the writer thread does not exist in it.
TEST_F(ExportedApiTest, ForkedChildEndsNormally)
{
    for (const bool cleanup : {false, true}) {
        SCOPED_TRACE(cleanup ? "Cleanup, then exit" : "exit");
        std::fflush(nullptr);
        const pid_t child = fork();
        ASSERT_LE(0, child);
        if (child == 0) {
            if (cleanup)
                OrvServerAPICleanup();
            std::exit(0);
        }
        int status = -1;
        const bool ended = WaitUntil([&] { return waitpid(child, &status, WNOHANG) == child; });
        if (!ended) {
            kill(child, SIGKILL);
            waitpid(child, &status, 0);
        }
        EXPECT_TRUE(ended) << "the child hung and was killed";
        EXPECT_TRUE(ended && WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    }
}

// The reference server pages its projects, refuses to replace without overwrite, stores what it gets.
TEST_F(ExportedApiTest, PublishesToTheReferenceServerByteForByte)
{
    ReferenceServer server;
    const std::string empty = Extract("empty.qrx", "");
    const std::string large = Bytes(5 * 1024 * 1024 + 17, 1);
    Connection connection;
    ASSERT_EQ(ORV_RESULT_Success, connection.Create());
    EXPECT_EQ(401, connection.Connect(server.Url(), "demo", "wrong-password"));
    EXPECT_EQ("Server Response Code: 401", LastError());
    EXPECT_EQ(402, connection.Publish(empty, "Samples", "empty", 0));
    EXPECT_EQ("Connect must be called first", LastError());
    ASSERT_EQ(ORV_RESULT_Success, connection.Connect(server.Url() + "//", "demo", "demo-password")) << LastError();
    ASSERT_EQ(ORV_RESULT_Success, connection.Publish(empty, "Samples", "empty", 0)) << LastError();
    ASSERT_EQ(ORV_RESULT_Success, connection.Publish(Extract("large.qrx", large), "Samples", "large", 0)) << LastError();
    EXPECT_EQ(std::optional<std::string>(""), server.Stored("Samples", "empty"));
    EXPECT_TRUE(server.Stored("Samples", "large") == large) << "the stored bytes differ from the file";

    ExpectCalls({
        {"project names match exactly", [&] { return connection.Publish(empty, "samples", "x", 0); }, 303, "Project \"samples\" doesn't exist on server"},
        {"missing file", [&] { return connection.Publish(m_dir.File("missing.qrx"), "Samples", "x", 0); }, 303,
         "File \"" + m_dir.File("missing.qrx") + "\" is either invalid or doesn't exist"},
        {"existing name without overwrite", [&] { return connection.Publish(empty, "Samples", "large", 0); }, 401, "Server Response Code: 409"},
    });
    EXPECT_TRUE(server.Stored("Samples", "large") == large);
    for (int overwrite : {1, 2, -1, INT_MIN, INT_MAX}) {  // every non-zero value replaces
        SCOPED_TRACE(overwrite);
        const std::string bytes = Bytes(100, static_cast<unsigned>(overwrite));
        ASSERT_EQ(ORV_RESULT_Success, connection.Publish(Extract("o.qrx", bytes), "Samples", "large", overwrite));
        EXPECT_EQ(bytes, server.Stored("Samples", "large"));
    }
    EXPECT_EQ(ORV_RESULT_Success, OrvServerConnectionDisconnect(connection.Handle()));
}

// Neither the sign-in password nor the proxy password reaches the log, in any encoding, whatever
// becomes of the sign-in: accepted, refused, failed, answered by a proxy that wants credentials.
TEST_F(ExportedApiTest, PasswordsNeverReachTheLog)
{
    const std::u16string password = u"Zq8-h1dden-\u00fc\u20ac\U0001D11E", proxyPassword = u"Kx3-pr0xy-\u00df\u2713";
    const std::string passwordUtf8 = u8"Zq8-h1dden-\u00fc\u20ac\U0001D11E", proxyUtf8 = u8"Kx3-pr0xy-\u00df\u2713";
    const std::string relayPassword = "Tp5-r3lay-s3cret";  // tinyproxy takes ASCII only
    TestHttpServer accepting(PublishScript({Response(201).Body(kPublishReply)}));
    TestHttpServer refusing(Script().Sequence("/api/2.0/auth/signin",
        {Response(401).Body("<error code=\"401001\"/>"), Response(500).Body("<html>internal</html>"),
         Response(200).CloseWithoutAnswer(), Response(200).Body(kSignInReply).RequireBasicAuth("relay", proxyUtf8)}));
    TinyProxy proxy(ProxyOptions{"relay", relayPassword});
    const auto connect = [&](const TestHttpServer& server) {
        return [&, url = server.BaseUrl()](Connection& c) {
            return OrvServerConnectionConnect(c.Handle(), U(url).c_str(), U("reporter").c_str(),
                                              Utf16(password.begin(), password.end()).c_str(), U("").c_str());
        };
    };
    const auto proxyCredentials = [](const std::u16string& secret) {
        return [secret](Connection& c) {
            return OrvServerConnectionSetProxyCredentials(c.Handle(), U("relay").c_str(), Utf16(secret.begin(), secret.end()).c_str());
        };
    };
    const std::string extract = Extract("secret.qrx", "extract bytes");
    const auto publish = [&](Connection& c) { return c.Publish(extract, "Sales", "secret", 1); };
    struct Attempt {
        std::string what;
        std::function<ORV_RESULT(Connection&)> call;
        std::set<ORV_RESULT> expected;
    };
    const auto run = [](const std::vector<Attempt>& attempts) {
        Connection c;
        ASSERT_EQ(ORV_RESULT_Success, c.Create());
        for (const Attempt& attempt : attempts) {
            SCOPED_TRACE(attempt.what);
            const ORV_RESULT result = attempt.call(c);
            EXPECT_EQ(1u, attempt.expected.count(result)) << result << " " << LastError();
            EXPECT_EQ(std::string::npos, LastError().find("h1dden"));
        }
    };
    run({{"accepted", connect(accepting), {ORV_RESULT_Success}}, {"publish", publish, {ORV_RESULT_Success}},
         {"wrong password", connect(refusing), {401}}, {"server error", connect(refusing), {401}},
         {"closed without an answer", connect(refusing), {400}}, {"challenge, no credentials", connect(refusing), {401}},
         {"proxy credentials", proxyCredentials(proxyPassword), {ORV_RESULT_Success}},
         {"challenge answered", connect(refusing), {ORV_RESULT_Success}}});
    {
        // The proxy's refusals close the connection under the body: libcurl sees one or the other.
        ProxyEnvironment viaProxy(proxy.Url());
        run({{"no proxy credentials", connect(accepting), {400, 401}},
             {"wrong proxy credentials", proxyCredentials(proxyPassword), {ORV_RESULT_Success}},
             {"refused by the proxy", connect(accepting), {400, 401}},
             {"right proxy credentials", proxyCredentials(std::u16string(relayPassword.begin(), relayPassword.end())), {ORV_RESULT_Success}},
             {"through the proxy", connect(accepting), {ORV_RESULT_Success}}, {"publish through it", publish, {ORV_RESULT_Success}}});
        EXPECT_GE(proxy.ForwardedConnections(), 2u);
    }
    // The secrets did go out, so their absence from the log means something.
    EXPECT_NE(std::string::npos, accepting.Requests().at(0).body.find("password=\"" + passwordUtf8 + "\""));
    const std::string log = StopAndReadLog();
    ASSERT_NE(std::string::npos, log.find("): Username  : reporter\n")) << log;
    ASSERT_NE(std::string::npos, log.find("): Server returned nothing (no headers, no data)\n")) << log;
    for (const std::string& secret : {passwordUtf8, proxyUtf8, relayPassword}) {
        std::string percent, utf16, utf32;  // the wider forms of the ASCII core
        for (unsigned char c : secret)
            percent += "%" + std::string(1, "0123456789ABCDEF"[c >> 4]) + "0123456789ABCDEF"[c & 15];
        for (char c : secret.substr(0, 9))
            utf16 += std::string(1, c) + '\0', utf32 += std::string(1, c) + std::string(3, '\0');
        for (const std::string& form : {secret, secret.substr(0, 9), utf16, utf32, percent, Base64(secret),
                                        Base64("relay:" + secret), Base64("reporter:" + secret)})
            EXPECT_EQ(std::string::npos, log.find(form)) << secret;
    }
}

// Sixteen threads run fifty cycles of create, connect, publish, disconnect and close each,
// while two more create and close handles and call with handles that are gone.
TEST_F(ExportedApiTest, SixteenThreadsPublishWhileGoneHandlesAreRefused)
{
    constexpr int kThreads = 16, kCycles = 50;
    ReferenceServer server(R"({"users": [{"name": "soak", "password": "soak-pw"}], "sites": [{"contentUrl": "", "projects": ["Soak"]}]})");
    const auto name = [](int t, int c) { return "t" + std::to_string(t) + "-c" + std::to_string(c); };
    const auto content = [](int t, int c) { return Bytes(100 + 37 * t + c, static_cast<unsigned>(t * 1000 + c)); };
    for (int t = 0; t < kThreads; ++t)
        for (int c = 0; c < kCycles; ++c)
            Extract(name(t, c) + ".qrx", content(t, c));
    // Freed addresses come back as new handles: a gone handle is called only while nothing is created or closed.
    std::shared_mutex churn;
    std::mutex liveMutex;
    std::set<void*> live;
    const auto create = [&](void** h) {
        std::shared_lock<std::shared_mutex> lock(churn);
        const ORV_RESULT rc = OrvServerConnectionCreate(h);
        std::lock_guard<std::mutex> guard(liveMutex);
        live.insert(*h);
        return rc;
    };
    const auto close = [&](void* h) {
        std::shared_lock<std::shared_mutex> lock(churn);
        const ORV_RESULT rc = OrvServerConnectionClose(h);
        std::lock_guard<std::mutex> guard(liveMutex);
        live.erase(h);
        return rc;
    };
    std::atomic<int> soaking{kThreads};
    std::vector<std::string> failures(kThreads + 2);
    std::vector<int> goneCalls(2, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int c = 0; c < kCycles && failures[t].empty(); ++c) {
                void* h = nullptr;
                ORV_RESULT rc = create(&h);
                if (rc == ORV_RESULT_Success)
                    rc = OrvServerConnectionConnect(h, U(server.Url()).c_str(), U("soak").c_str(), U("soak-pw").c_str(), U("").c_str());
                if (rc == ORV_RESULT_Success)
                    rc = OrvServerConnectionPublishExtract(h, U(m_dir.File(name(t, c) + ".qrx")).c_str(), U("Soak").c_str(), U(name(t, c)).c_str(), 0);
                if (rc == ORV_RESULT_Success)
                    rc = OrvServerConnectionDisconnect(h);
                if (rc == ORV_RESULT_Success)
                    rc = close(h);
                if (rc != ORV_RESULT_Success)
                    failures[t] = name(t, c) + ": " + std::to_string(rc) + " " + LastError();
            }
            --soaking;
        });
    for (int k = 0; k < 2; ++k)
        threads.emplace_back([&, k] {
            int notAHandle = 0;
            for (int round = 0; round < 400 && soaking > 0 && failures[kThreads + k].empty(); ++round) {
                void* h = nullptr;
                if (create(&h) != ORV_RESULT_Success || close(h) != ORV_RESULT_Success)
                    failures[kThreads + k] = "create or close failed: " + LastError();
                for (void* gone : {h, static_cast<void*>(nullptr), static_cast<void*>(&notAHandle)}) {
                    std::unique_lock<std::shared_mutex> lock(churn);
                    if (live.count(gone) != 0)
                        continue;
                    ++goneCalls[k];
                    for (const Call& call : HandleCalls("gone", gone, ORV_RESULT_BadHandle, ""))
                        if (call.call() != ORV_RESULT_BadHandle || LastError() != "Invalid ServerConnection handle")
                            failures[kThreads + k] = call.what + " gave " + LastError();
                }
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    for (std::size_t i = 0; i < failures.size(); ++i)
        EXPECT_EQ("", failures[i]) << "thread " << i;
    EXPECT_GT(goneCalls[0] + goneCalls[1], 0);
    for (int t = 0; t < kThreads; ++t)
        for (int c = 0; c < kCycles; ++c)
            EXPECT_EQ(content(t, c), server.Stored("Soak", name(t, c))) << name(t, c);
}
