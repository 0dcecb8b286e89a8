// The functions of OrvaneServerExt.h through the exported API, against the
// scripted loopback server.
#include <orvane/OrvaneServerExt.h>

#include "tests/capi/CapiTestSupport.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/pem.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <functional>

namespace CapiTest {
namespace {

using OrvaneTest::Script;

const char kSignInPath[] = "/api/2.0/auth/signin";
constexpr std::uint64_t kStep = 64 * 1024;

// A loopback port whose connections wait in the backlog, never accepted: a
// TLS handshake there never gets an answer.
class SilentListener {
  public:
    SilentListener() : m_socket(::socket(AF_INET, SOCK_STREAM, 0))
    {
        sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t length = sizeof address;
        if (::bind(m_socket, reinterpret_cast<sockaddr*>(&address), length) != 0 || ::listen(m_socket, 8) != 0 ||
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
        {"many steps", 3 * 1024 * 1024 + 7, Response(201).Body(kPublishReply), 1},
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
            const std::uint64_t sent = progress[i].first, before = i == 0 ? 0 : progress[i - 1].first;
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

// Each call is stopped by what the row set: a cancel from another thread, a
// callback, a time limit, a limit on redirects or on the reply, or trust.
TEST_F(ExtensionTest, SettingsStopTheCallsTheyApplyTo)
{
    using Setup = std::function<void(void* handle, const TestHttpServer& server)>;
    const auto with = [](void (*set)(void*)) { return Setup([set](void* h, const TestHttpServer&) { set(h); }); };
    const Setup enableCancel = with([](void* h) { OrvServerConnectionEnableCancel(h); });
    const Setup stall = with([](void* h) { OrvServerConnectionSetStallTimeout(h, 1); });
    const auto trust = [this](bool directory) {
        return [this, directory](void* handle, const TestHttpServer& server) {
            const std::string path =
                directory ? HashedDirectory(m_dir, server.CertificateFile()) : server.CertificateFile();
            OrvServerConnectionSetCACertificates(handle, U(path).c_str());
        };
    };
    const Response heldUpload = Response(201).Body(kPublishReply).HoldBodyAt(256 * 1024, 10);
    const Script heldSignIn = Script().On(kSignInPath, Response(200).Body(kSignInReply).HoldBodyAt(0, 10));
    const Script signIn = Script().On(kSignInPath, Response(200).Body(kSignInReply));
    const struct {
        const char* name;
        Script script;
        Setup setup;
        bool publish;      // else the sign-in is the call under test
        bool cancelOnHold; // another thread cancels once the server holds the body
        ORV_RESULT expected;
        std::string error; // the start of the last error
        bool tls = false;
        bool silent = false; // sign in at a port that never answers
    } rows[] = {
        {"cancel a held upload", PublishScript({heldUpload}), enableCancel, true, true, ORV_RESULT_Cancelled,
         "Cancelled"},
        {"cancel a silent sign-in", heldSignIn, enableCancel, false, true, ORV_RESULT_Cancelled, "Cancelled"},
        {"cancel before the call", signIn, with([](void* h) { OrvServerConnectionCancel(h); }), false, false,
         ORV_RESULT_Cancelled, "Cancelled"},
        {"progress callback says stop", PublishScript({Response(201).Body(kPublishReply)}), with([](void* h) {
             OrvServerConnectionSetProgressCallback(
                 h, [](void*, std::uint64_t n, std::uint64_t) { return n > 0 ? 1 : 0; }, nullptr);
         }),
         true, false, ORV_RESULT_Cancelled, "Cancelled"},
        {"stall: silent sign-in", heldSignIn, stall, false, false, ORV_RESULT_TimedOut, "Timeout was reached"},
        {"stall: held upload", PublishScript({heldUpload}), stall, true, false, ORV_RESULT_TimedOut,
         "Timeout was reached"},
        {"connect time-out", signIn, with([](void* h) { OrvServerConnectionSetConnectTimeout(h, 1); }), false, false,
         ORV_RESULT_TimedOut, "Timeout was reached", false, true},
        {"redirects forever", Script().On(kSignInPath, Response::Redirect(302, kSignInPath)),
         with([](void* h) { OrvServerConnectionSetMaxRedirects(h, 3); }), false, false, ORV_SERVER_NetworkFailure,
         "Number of redirects hit maximum amount"},
        {"oversized reply", Script().On(kSignInPath, Response(200).Body(std::string(200000, 'x'))),
         with([](void* h) { OrvServerConnectionSetMaxReplySize(h, 1000); }), false, false, ORV_SERVER_NetworkFailure,
         "Server reply larger than the limit of 1000 bytes"},
        {"self-signed, no CA", signIn, with([](void*) {}), false, false, ORV_SERVER_NetworkFailure, "SSL", true},
        {"self-signed, CA file", signIn, trust(false), false, false, ORV_RESULT_Success, "", true},
        {"self-signed, CA directory", signIn, trust(true), false, false, ORV_RESULT_Success, "", true},
    };
    const std::string path = Extract("big.qrx", Bytes(8 * 1024 * 1024, 3));
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        TestHttpServer server(row.script, OrvaneTest::ServerOptions{row.tls});
        const SilentListener silent;
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
        ORV_RESULT result = connection.Connect(row.silent ? silent.Url() : server.BaseUrl(), "u", "p");
        if (row.publish && result == ORV_RESULT_Success)
            result = connection.Publish(path, "Sales", "d", 0);
        canceller.join();
        server.ReleaseHolds();
        EXPECT_EQ(row.expected, result) << LastError();
        if (result != ORV_RESULT_Success) {
            EXPECT_EQ(row.error, LastError().substr(0, row.error.size()));
        }
    }
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
        {"error document",
         Response(409).Body("<qsResponse><error code=\"409\"><summary>Resource Conflict</summary>"
                            "<detail>A data source named &quot;d&quot; exists.</detail></error>"
                            "</qsResponse>"),
         409, L"Resource Conflict: A data source named \"d\" exists."},
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
