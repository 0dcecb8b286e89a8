// The functions of OrvaneServerExt.h through the exported API, against the
// scripted loopback server.
#include <orvane/OrvaneServerExt.h>

#include "tests/capi/CapiTestSupport.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/pem.h>
#include <sys/socket.h>
#include <unistd.h>

#include <curl/curl.h>

#include <pthread.h>
#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

#include <climits>
#include <cstdio>
#include <functional>
#include <set>

namespace CapiTest {
namespace {

using OrvaneTest::Script;

const char kSignInPath[] = "/api/2.0/auth/signin";
constexpr std::uint64_t kStep = 64 * 1024;

// A loopback port held by this process. Listening, its connections wait in
// the backlog, never accepted: a TLS handshake there never gets an answer.
// Not listening, it refuses every connection.
class SilentListener {
  public:
    explicit SilentListener(bool listening) : m_socket(::socket(AF_INET, SOCK_STREAM, 0))
    {
        sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t length = sizeof address;
        if (::bind(m_socket, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
            (listening && ::listen(m_socket, 8) != 0) ||
            ::getsockname(m_socket, reinterpret_cast<sockaddr*>(&address), &length) != 0)
            throw std::runtime_error("no loopback listener");
        m_port = ntohs(address.sin_port);
    }
    ~SilentListener() { ::close(m_socket); }
    std::string Url() const { return "https://127.0.0.1:" + std::to_string(m_port); }

  private:
    int m_socket;
    unsigned short m_port;
};

// A directory holding `certificate` under its subject hash, as `openssl rehash` leaves it.
std::string HashedDirectory(const OrvaneTest::TempDirectory& dir, const std::string& certificate)
{
    const std::string pem = OrvaneTest::ReadFileBytes(certificate);
    BIO* bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
    X509* x509 = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr);
    char name[16];
    std::snprintf(name, sizeof name, "%08lx.0", x509 != nullptr ? X509_subject_name_hash(x509) : 0UL);
    X509_free(x509);
    BIO_free(bio);
    std::filesystem::create_directories(dir.File("ca"));
    std::filesystem::copy_file(certificate, dir.File("ca") + "/" + name);
    return dir.File("ca");
}

using ProgressCalls = std::vector<std::pair<std::uint64_t, std::uint64_t>>; // (sent, total)
int Record(void* calls, std::uint64_t sent, std::uint64_t total)
{
    static_cast<ProgressCalls*>(calls)->emplace_back(sent, total);
    return 0;
}

class ExtensionTest : public StartedTest {};

// From 0 to the whole body's length in steps of about 64 KiB, and from 0
// again when an authentication answer makes the body go out a second time.
TEST_F(ExtensionTest, ProgressRisesFromZeroToTheBodyLength)
{
    const struct {
        const char* name;
        std::size_t fileSize;
        Response upload;
        std::size_t minimumPasses;
    } rows[] = {
        {"small file", 1000, Response(201).Body(kPublishReply), 1},
        {"sent again after 401", 300000, Response(201).Body(kPublishReply).RequireBasicAuth("u", "p"), 2},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        TestHttpServer server(PublishScript({row.upload}));
        const std::string path = Extract("p.qrx", Bytes(row.fileSize, 7));
        const std::uint64_t total = BodyLength("d", path, row.fileSize);
        ProgressCalls progress;
        Connection connection;
        ASSERT_EQ(ORV_RESULT_Success, connection.Create());
        ASSERT_EQ(ORV_RESULT_Success,
                  OrvServerConnectionSetProxyCredentials(connection.Handle(), U("u").c_str(), U("p").c_str()));
        ASSERT_EQ(ORV_RESULT_Success, OrvServerConnectionSetProgressCallback(connection.Handle(), &Record, &progress));
        ASSERT_EQ(ORV_RESULT_Success, connection.Connect(server.BaseUrl(), "u", "p"));
        EXPECT_TRUE(progress.empty()); // a sign-in is no upload
        ASSERT_EQ(ORV_RESULT_Success, connection.Publish(path, "Sales", "d", 0)) << LastError();

        ASSERT_FALSE(progress.empty());
        EXPECT_EQ(total, progress.back().first);
        std::size_t passes = 0;
        for (std::size_t i = 0; i < progress.size(); ++i) {
            const std::uint64_t sent = progress[i].first;
            const std::uint64_t before = i == 0 ? 0 : progress[i - 1].first;
            EXPECT_EQ(total, progress[i].second);
            if (sent == 0) { // a pass begins: the first, or one after the whole body went out
                EXPECT_TRUE(i == 0 || before == total) << "call " << i;
                ++passes;
            } else {
                EXPECT_TRUE(sent > before && sent - before <= 2 * kStep && (sent == total || sent - before >= kStep))
                    << "call " << i << ": " << before << " to " << sent;
            }
        }
        // A pass (from 0) each time the body went out: libcurl probes the
        // scheme first, then sends it again with the credentials.
        EXPECT_EQ(Uploads(server.Requests(false)).size(), passes);
        EXPECT_GE(passes, row.minimumPasses);
    }
}

// Each call ends as the row's setting or peer makes it end: the result code
// and text of the eight functions, and the failure kind a program acts on,
// with libcurl's code and how much of the upload went out.
TEST_F(ExtensionTest, FailuresCarryTheirKind)
{
    using Setup = std::function<void(void* handle, const TestHttpServer& server)>;
    const auto with = [](void (*set)(void*)) { return Setup([set](void* h, const TestHttpServer&) { set(h); }); };
    const Setup none = with([](void*) {});
    const Setup enableCancel = with([](void* h) { OrvServerConnectionEnableCancel(h); });
    const Setup stall = with([](void* h) { OrvServerConnectionSetStallTimeout(h, 1); });
    const auto trust = [this](bool directory) {
        return [this, directory](void* handle, const TestHttpServer& server) {
            const std::string path =
                directory ? HashedDirectory(m_dir, server.CertificateFile()) : server.CertificateFile();
            OrvServerConnectionSetCACertificates(handle, U(path).c_str());
        };
    };
    const Setup replyLimit = with([](void* h) {
        OrvServerConnectionSetStallTimeout(h, 1);
        OrvServerConnectionSetReplyTimeout(h, 1);
    });
    const Setup totalLimit = with([](void* h) {
        OrvServerConnectionSetStallTimeout(h, 1);
        OrvServerConnectionSetTotalTimeout(h, 2);
    });
    const auto policy = [](ORV_REDIRECT_POLICY redirects, bool tls) {
        return [redirects, tls](void* handle, const TestHttpServer& server) {
            if (tls)
                OrvServerConnectionSetCACertificates(handle, U(server.CertificateFile()).c_str());
            OrvServerConnectionSetRedirectPolicy(handle, redirects);
        };
    };
    const TinyProxy proxy(ProxyOptions{"relay", "secret"});
    const Response heldUpload = Response(201).Body(kPublishReply).HoldBodyAt(256 * 1024, 10);
    const Script heldSignIn = Script().On(kSignInPath, Response(200).Body(kSignInReply).HoldBodyAt(0, 10));
    const std::optional<Script> shared; // no server of the row's own: the plain or TLS one the rows share
    const std::set<long> noCode{0};
    const std::set<long> aborted{CURLE_ABORTED_BY_CALLBACK};
    const auto codes = [](auto... code) { return std::set<long>{code...}; };
    enum Peer { Scripted, Tls, Silent, Refusing, TlsBehindProxy }; // behind the environment's proxy, which refuses
    enum Call { SignIn, Publish, PublishMissing };
    enum Upload { NoUpload, PartOfIt, AllOfIt };
    const struct {
        const char* name;
        std::optional<Script> script;
        Setup setup;
        Call call;
        bool cancelOnHold; // another thread cancels once the server holds the body
        ORV_RESULT expected;
        std::string error; // the start of the last error
        ORV_FAILURE kind;
        std::set<long> codes; // libcurl's
        long status;          // of the exchange the call ended on
        Upload upload;
        Peer peer = Scripted;
    } rows[] = {
        {"cancel a silent sign-in", heldSignIn, enableCancel, SignIn, true, ORV_RESULT_Cancelled, "Cancelled",
         ORV_FAILURE_Cancelled, aborted, 0, NoUpload},
        {"cancel before the call", shared, with([](void* h) { OrvServerConnectionCancel(h); }), SignIn, false,
         ORV_RESULT_Cancelled, "Cancelled", ORV_FAILURE_Cancelled, noCode, 0, NoUpload},
        {"stall: held upload", PublishScript({heldUpload}), stall, Publish, false, ORV_RESULT_TimedOut,
         "Timeout was reached", ORV_FAILURE_StallTimeout, aborted, 0, PartOfIt},
        {"connect time-out", shared, with([](void* h) { OrvServerConnectionSetConnectTimeout(h, 1); }), SignIn, false,
         ORV_RESULT_TimedOut, "Timeout was reached", ORV_FAILURE_ConnectTimeout, codes(CURLE_OPERATION_TIMEDOUT), 0,
         NoUpload, Silent},
        {"refused port", shared, none, SignIn, false, ORV_SERVER_NetworkFailure, "Couldn't connect to server",
         ORV_FAILURE_Connect, codes(CURLE_COULDNT_CONNECT), 0, NoUpload, Refusing},
        {"redirects forever", Script().On(kSignInPath, Response::Redirect(302, kSignInPath)),
         with([](void* h) { OrvServerConnectionSetMaxRedirects(h, 3); }), SignIn, false, ORV_SERVER_NetworkFailure,
         "Number of redirects hit maximum amount", ORV_FAILURE_TooManyRedirects, codes(CURLE_TOO_MANY_REDIRECTS), 302,
         NoUpload},
        {"oversized reply", Script().On(kSignInPath, Response(200).Body(std::string(200000, 'x'))),
         with([](void* h) { OrvServerConnectionSetMaxReplySize(h, 1000); }), SignIn, false, ORV_SERVER_NetworkFailure,
         "Server reply larger than the limit of 1000 bytes", ORV_FAILURE_ReplyTooLarge, codes(CURLE_WRITE_ERROR), 200,
         NoUpload},
        {"self-signed, CA file", shared, trust(false), SignIn, false, ORV_RESULT_Success, "", ORV_FAILURE_None, noCode,
         200, NoUpload, Tls},
        {"self-signed, CA directory", shared, trust(true), SignIn, false, ORV_RESULT_Success, "", ORV_FAILURE_None,
         noCode, 200, NoUpload, Tls},
        {"proxy wants credentials", shared, none, SignIn, false, ORV_SERVER_NetworkFailure, "", ORV_FAILURE_Proxy,
         codes(CURLE_RECV_ERROR, CURLE_PROXY), 0, NoUpload, TlsBehindProxy},
        {"reset mid-upload", PublishScript({Response(201).ReadBodyBytes(64 * 1024).ResetWithoutAnswer()}), none,
         Publish, false, ORV_SERVER_NetworkFailure, "", ORV_FAILURE_ConnectionLost,
         codes(CURLE_SEND_ERROR, CURLE_RECV_ERROR), 0, PartOfIt},
        {"other 4xx", PublishScript({Response(413)}), none, Publish, false, ORV_SERVER_ServerResponseError,
         "Server Response Code: 413", ORV_FAILURE_Refused, noCode, 413, AllOfIt},
        {"5xx after the whole body", PublishScript({Response(502)}), none, Publish, false,
         ORV_SERVER_ServerResponseError, "Server Response Code: 502", ORV_FAILURE_ServerError, noCode, 502, AllOfIt},
        {"reply not XML", PublishScript({Response(201).Body("not xml")}), none, Publish, false,
         ORV_SERVER_ResponseParseFailed, "", ORV_FAILURE_ReplyUnreadable, noCode, 201, AllOfIt},
        {"no such extract", shared, none, PublishMissing, false, ORV_SERVER_InvalidPublishInput, "File \"",
         ORV_FAILURE_ExtractUnusable, noCode, 0, NoUpload},
        {"stall quiet while the server works", PublishScript({Response(201).Body(kPublishReply).AnswerAfter(1.5)}),
         stall, Publish, false, ORV_RESULT_Success, "", ORV_FAILURE_None, noCode, 201, AllOfIt},
        {"reply limit", PublishScript({Response(201).Body(kPublishReply).AnswerAfter(5)}), replyLimit, Publish, false,
         ORV_RESULT_TimedOut, "Timeout was reached", ORV_FAILURE_ReplyTimeout, aborted, 0, AllOfIt},
        {"stall: sign-in answered late", Script().On(kSignInPath, Response(200).Body(kSignInReply).AnswerAfter(5)),
         stall, SignIn, false, ORV_RESULT_TimedOut, "Timeout was reached", ORV_FAILURE_StallTimeout, aborted, 0,
         NoUpload},
        {"drip: the total limit", Script().On(kSignInPath, Response(200).Body(kSignInReply).DripBody(0.4)), totalLimit,
         SignIn, false, ORV_RESULT_TimedOut, "Timeout was reached", ORV_FAILURE_TotalTimeout, aborted, 200, NoUpload},
        {"same origin: another port", Script().On(kSignInPath, Response::Redirect(302, "http://127.0.0.1:1/elsewhere")),
         policy(ORV_REDIRECT_SameOrigin, false), SignIn, false, ORV_SERVER_NetworkFailure,
         "Redirect refused: http://127.0.0.1:1/elsewhere", ORV_FAILURE_RedirectRefused, noCode, 302, NoUpload},
        {"no downgrade: https to http", Script().On(kSignInPath, Response::Redirect(301, "http://127.0.0.1:1/plain")),
         policy(ORV_REDIRECT_NoDowngrade, true), SignIn, false, ORV_SERVER_NetworkFailure,
         "Redirect refused: http://127.0.0.1:1/plain", ORV_FAILURE_RedirectRefused, noCode, 301, NoUpload, Tls},
        {"same origin: followed, still a POST",
         PublishScript({Response::Redirect(307, "/moved")}).On("POST", "/moved", Response(201).Body(kPublishReply)),
         policy(ORV_REDIRECT_SameOrigin, false), Publish, false, ORV_RESULT_Success, "", ORV_FAILURE_None, noCode, 201,
         AllOfIt},
    };
    const std::string path = Extract("big.qrx", Bytes(8 * 1024 * 1024, 3));
    const Script published = PublishScript({Response(201).Body(kPublishReply)});
    const TestHttpServer plain(published);
    const TestHttpServer secure(published, OrvaneTest::ServerOptions{true});
    const auto run = [&](const auto& row) {
        SCOPED_TRACE(row.name);
        std::optional<TestHttpServer> own;
        if (row.script)
            own.emplace(*row.script, OrvaneTest::ServerOptions{row.peer == Tls});
        const TestHttpServer& server = own ? *own : row.peer == Tls || row.peer == TlsBehindProxy ? secure : plain;
        const SilentListener silent(true);
        const SilentListener refusing(false);
        const std::string urls[] = {server.BaseUrl(), server.BaseUrl(), silent.Url(), refusing.Url(), server.BaseUrl()};
        Connection connection;
        ASSERT_EQ(ORV_RESULT_Success, connection.Create());
        row.setup(connection.Handle(), server);
        // The server's hold ends after 10 s: a cancel that did not work then
        // shows as a call that succeeded, never as a hang.
        std::thread canceller([&] {
            if (row.cancelOnHold && server.WaitForHold()) {
                EXPECT_EQ(ORV_RESULT_Success, OrvServerConnectionCancel(connection.Handle()));
            }
        });
        ORV_RESULT result = connection.Connect(urls[row.peer], "u", "p");
        if (row.call != SignIn && result == ORV_RESULT_Success) {
            const std::string extract = row.call == PublishMissing ? m_dir.File("absent.qrx") : path;
            result = connection.Publish(extract, "Sales", "d", 0);
        }
        canceller.join();
        if (own)
            own->ReleaseHolds();
        EXPECT_EQ(row.expected, result) << LastError();
        EXPECT_EQ(row.error, LastError().substr(0, row.error.size()));
        ORV_FAILURE kind = ORV_FAILURE_Other;
        long code = -1;
        ASSERT_EQ(ORV_RESULT_Success, OrvServerConnectionGetFailure(connection.Handle(), &kind, &code));
        EXPECT_STREQ(OrvFailureName(row.kind), OrvFailureName(kind));
        EXPECT_EQ(1u, row.codes.count(code)) << code;
        long status = -1;
        ASSERT_EQ(ORV_RESULT_Success, OrvServerConnectionGetHttpStatus(connection.Handle(), &status));
        EXPECT_EQ(row.status, status);
        std::uint64_t sent = 1;
        std::uint64_t total = 1;
        ASSERT_EQ(ORV_RESULT_Success, OrvServerConnectionGetUploadProgress(connection.Handle(), &sent, &total));
        EXPECT_EQ(row.upload == NoUpload, total == 0) << total;
        EXPECT_EQ(row.upload == AllOfIt, total > 0 && sent == total) << sent << " of " << total;
    };
    // The environment is the whole process's: the row behind the proxy runs alone. The others run at once,
    // so that their waits for limits overlap, and start their servers: many threads fork at once.
    for (const auto& row : rows) {
        if (row.peer == TlsBehindProxy) {
            SetProxyEnvironment(proxy.Url());
            run(row);
            SetProxyEnvironment("", "127.0.0.1,localhost");
        }
    }
    std::vector<std::thread> threads;
    for (const auto& row : rows)
        if (row.peer != TlsBehindProxy)
            threads.emplace_back([&run, &row] { run(row); });
    for (std::thread& thread : threads)
        thread.join();
}

// A value a setter cannot honour is refused at once, and the setting stays as
// it was: the next call goes out as if it had not been made.
TEST_F(ExtensionTest, SettersRefuseValuesOutOfRange)
{
    using Setter = std::function<ORV_RESULT(void*)>;
    const ORV_RESULT invalid = ORV_RESULT_InvalidArgument;
    const struct {
        const char* name;
        Setter set;
        ORV_RESULT expected;
        std::string error;
    } rows[] = {
        {"connect, longest", [](void* h) { return OrvServerConnectionSetConnectTimeout(h, 2147483); },
         ORV_RESULT_Success, ""},
        {"connect, negative", [](void* h) { return OrvServerConnectionSetConnectTimeout(h, -1); }, invalid,
         "Invalid argument 'seconds'"},
        {"stall, LONG_MAX", [](void* h) { return OrvServerConnectionSetStallTimeout(h, LONG_MAX); }, invalid,
         "Invalid argument 'seconds'"},
        {"project cache, LONG_MAX", [](void* h) { return OrvServerConnectionSetProjectCache(h, LONG_MAX); }, invalid,
         "Invalid argument 'seconds'"},
        {"total, past the longest", [](void* h) { return OrvServerConnectionSetTotalTimeout(h, 2147484); }, invalid,
         "Invalid argument 'seconds'"},
        {"total, none", [](void* h) { return OrvServerConnectionSetTotalTimeout(h, 0); }, ORV_RESULT_Success, ""},
        {"upload buffer, too small", [](void* h) { return OrvServerConnectionSetUploadBufferSize(h, 16383); }, invalid,
         "Invalid argument 'bytes'"},
        {"upload buffer, too large",
         [](void* h) { return OrvServerConnectionSetUploadBufferSize(h, 2 * 1024 * 1024 + 1); }, invalid,
         "Invalid argument 'bytes'"},
        {"redirect policy, unknown",
         [](void* h) { return OrvServerConnectionSetRedirectPolicy(h, static_cast<ORV_REDIRECT_POLICY>(3)); }, invalid,
         "Invalid argument 'policy'"},
    };
    TestHttpServer server(PublishScript({Response(201).Body(kPublishReply)}));
    Connection connection;
    ASSERT_EQ(ORV_RESULT_Success, connection.Create());
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        OrvSetLastErrorMessage(L"");
        EXPECT_EQ(row.expected, row.set(connection.Handle()));
        EXPECT_EQ(row.error, LastError());
    }
    EXPECT_EQ(ORV_RESULT_Success, connection.Connect(server.BaseUrl(), "u", "p")) << LastError();
    EXPECT_EQ(ORV_RESULT_Success, connection.Publish(Extract("s.qrx", "bytes"), "Sales", "d", 0)) << LastError();
}

// Closing a handle while another thread is inside a call on it stops the
// call, which returns Cancelled on a session that is freed only then.
TEST_F(ExtensionTest, CloseDuringACallCancelsIt)
{
    TestHttpServer server(PublishScript({Response(201).Body(kPublishReply).HoldBodyAt(256 * 1024, 10)}));
    const std::string path = Extract("held.qrx", Bytes(1024 * 1024, 5));
    Connection connection;
    ASSERT_EQ(ORV_RESULT_Success, connection.Create());
    ASSERT_EQ(ORV_RESULT_Success, OrvServerConnectionEnableCancel(connection.Handle()));
    ASSERT_EQ(ORV_RESULT_Success, connection.Connect(server.BaseUrl(), "u", "p"));
    void* const handle = connection.Handle();
    ORV_RESULT published = ORV_RESULT_Success;
    std::thread publisher([&] { published = connection.Publish(path, "Sales", "d", 0); });
    EXPECT_TRUE(server.WaitForHold());
    EXPECT_EQ(ORV_RESULT_Success, connection.Close());
    publisher.join();
    server.ReleaseHolds();
    EXPECT_EQ(ORV_RESULT_Cancelled, published);
    EXPECT_EQ(ORV_RESULT_BadHandle, OrvServerConnectionCancel(handle));
}

// A thread that ends inside a call (pthread_exit, as a cancelled thread or
// an interpreter shutting down does) unwinds through the library and ends,
// and the handle works on afterwards.
TEST_F(ExtensionTest, AThreadEndedInsideACallUnwindsThroughTheLibrary)
{
    TestHttpServer server(PublishScript({Response(201).Body(kPublishReply)}));
    const std::string path = Extract("exit.qrx", Bytes(300 * 1024, 9));
    Connection connection;
    ASSERT_EQ(ORV_RESULT_Success, connection.Create());
    ASSERT_EQ(ORV_RESULT_Success, connection.Connect(server.BaseUrl(), "u", "p"));
    const auto endThread = [](void*, std::uint64_t sent, std::uint64_t) -> int {
        if (sent > 0)
            pthread_exit(nullptr);
        return 0;
    };
    ASSERT_EQ(ORV_RESULT_Success, OrvServerConnectionSetProgressCallback(connection.Handle(), endThread, nullptr));
    struct Call {
        Connection* connection;
        std::string path;
        bool returned = false;
    } call{&connection, path};
    pthread_t thread;
    const auto publish = [](void* data) -> void* {
#if defined(__SANITIZE_ADDRESS__)
        // libcurl's state of the transfer the thread leaves stays behind: an
        // end that abandons it, not a leak of the library's.
        __lsan_disable();
#endif
        auto* call = static_cast<Call*>(data);
        call->connection->Publish(call->path, "Sales", "d", 0);
        call->returned = true;
        return nullptr;
    };
    ASSERT_EQ(0, pthread_create(&thread, nullptr, publish, &call));
    ASSERT_EQ(0, pthread_join(thread, nullptr));
    EXPECT_FALSE(call.returned);
    ASSERT_EQ(ORV_RESULT_Success, OrvServerConnectionSetProgressCallback(connection.Handle(), nullptr, nullptr));
    EXPECT_EQ(ORV_RESULT_Success, connection.Publish(path, "Sales", "d", 0)) << LastError();
}

// The last call's status and the server's own words, on every handle: from
// an error document, or the reply's text, bounded; a success clears them.
TEST_F(ExtensionTest, StatusAndReasonOfTheLastRefusal)
{
    const struct {
        const char* name;
        Response refusal;
        long status;
        std::wstring reason;
    } rows[] = {
        {"plain text", Response(503).Body("busy, try later\n"), 503, L"busy, try later\n"},
        {"long text, bounded", Response(500).Body(std::string(10000, 'x')), 500, std::wstring(4096, L'x')},
        {"not UTF-8", Response(502).Body("bad \xFF\xC3 caf\xC3\xA9"), 502, L"bad \uFFFD\uFFFD caf\u00E9"},
    };
    const std::string path = Extract("r.qrx", "extract");
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        TestHttpServer server(PublishScript({row.refusal, Response(201).Body(kPublishReply)}));
        Connection connection;
        ASSERT_EQ(ORV_RESULT_Success, connection.Create());
        long status = -1;
        const wchar_t* reason = nullptr;
        const auto expect = [&](long expectedStatus, const std::wstring& expectedReason) {
            ASSERT_EQ(ORV_RESULT_Success, OrvServerConnectionGetHttpStatus(connection.Handle(), &status));
            ASSERT_EQ(ORV_RESULT_Success, OrvServerConnectionGetServerReason(connection.Handle(), &reason));
            EXPECT_EQ(expectedStatus, status);
            EXPECT_EQ(expectedReason, reason);
        };
        expect(0, L"");
        ASSERT_EQ(ORV_RESULT_Success, connection.Connect(server.BaseUrl(), "u", "p"));
        expect(200, L"");
        EXPECT_EQ(ORV_SERVER_ServerResponseError, connection.Publish(path, "Sales", "d", 0));
        EXPECT_EQ("Server Response Code: " + std::to_string(row.status), LastError());
        expect(row.status, row.reason);
        EXPECT_EQ(ORV_RESULT_Success, connection.Publish(path, "Sales", "d", 1));
        expect(201, L"");
    }
}

// A handle on which no extension function was called sends the bytes it
// always sent: no header, option or framing more.
TEST_F(ExtensionTest, PlainHandleSendsTheKnownBytes)
{
    TestHttpServer server(PublishScript({Response(201).Body(kPublishReply)}));
    const std::string file = Bytes(5000, 11);
    const std::string path = Extract("w.qrx", file);
    Connection connection;
    ASSERT_EQ(ORV_RESULT_Success, connection.Create());
    ASSERT_EQ(ORV_RESULT_Success, connection.Connect(server.BaseUrl(), "u", "p"));
    ASSERT_EQ(ORV_RESULT_Success, connection.Publish(path, "Sales", "d", 0));
    const std::vector<RecordedRequest> requests = server.Requests();
    ASSERT_EQ(3u, requests.size());
    const std::string host = "Host: 127.0.0.1:" + std::to_string(server.Port()) + "\r\nAccept: */*\r\n";
    const std::string boundary = BoundaryOf(requests[2]);
    const auto framing = Framing(boundary, "d", path);
    const std::string heads[] = {
        "POST /api/2.0/auth/signin HTTP/1.1\r\n" + host +
            "Content-Type: text/xml\r\nContent-Length: " + std::to_string(requests[0].body.size()) + "\r\n\r\n",
        "GET /api/2.0/sites/S1/projects?pageSize=100&pageNumber=1 HTTP/1.1\r\n" + host + "X-Orvane-Auth: T0K3N\r\n\r\n",
        "POST /api/2.0/sites/S1/datasources HTTP/1.1\r\n" + host +
            "Content-Type: multipart/mixed; boundary=" + boundary + "\r\nX-Orvane-Auth: T0K3N\r\nContent-Length: " +
            std::to_string(BodyLength("d", path, file.size())) + "\r\n\r\n"};
    for (std::size_t i = 0; i < 3; ++i)
        EXPECT_EQ(heads[i], requests[i].head) << "request " << i;
    EXPECT_EQ(framing.first + file + framing.second, requests[2].body);
}

} // namespace
} // namespace CapiTest
