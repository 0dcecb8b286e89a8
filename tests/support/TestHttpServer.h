#pragma once

#include "tests/support/ChildProcess.h"
#include "tests/support/HttpScript.h"
#include "tests/support/RecordedRequest.h"

#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace OrvaneTest {

struct ServerOptions {
    // With a self-signed certificate for 127.0.0.1, ::1 and localhost (see CertificateFile()).
    bool tls = false;
    // False keeps only length and SHA-256 of each body: for uploads of hundreds of MiB.
    bool storeBodies = true;
    // A connection silent this long is dropped; 0 keeps the server's 120 s. A test whose
    // client may wait for a body that never comes stays short with a few seconds here.
    unsigned idleTimeoutSeconds = 0;
};

// The scripted, recording HTTP(S) server of tests/support/http_test_server.py, run as a child
// process on 127.0.0.1 for the life of this object. Every request is recorded before the
// server answers it, so once a client has its answer the request is in Requests(); only a
// request answered with AnswerThenReadBody(), or one the client abandoned, is finished later
// (use WaitForRequests).
class TestHttpServer {
public:
    // Throws std::runtime_error (with the server's output) when the server does not come up.
    explicit TestHttpServer(const Script& script, const ServerOptions& options = {});
    ~TestHttpServer();

    TestHttpServer(const TestHttpServer&) = delete;
    TestHttpServer& operator=(const TestHttpServer&) = delete;

    unsigned short Port() const { return m_port; }
    std::string BaseUrl() const;                          // "http(s)://127.0.0.1:port"
    std::string Url(const std::string& pathAndQuery) const; // BaseUrl() + pathAndQuery
    std::string CertificateFile() const;                  // PEM; empty without TLS

    std::vector<RecordedRequest> Requests(bool loadBodies = true) const;
    std::size_t RequestCount() const;
    // For requests that finish after the client gave up (an aborted upload): polls until
    // `count` requests are recorded or `limit` has passed, then returns what there is.
    std::vector<RecordedRequest> WaitForRequests(std::size_t count,
                                                 std::chrono::milliseconds limit = std::chrono::seconds(10)) const;

    // Connection events in order: "open C", "tls-failed C reason", "drained C bytes",
    // "error C what", "io-error C what", "close C".
    std::vector<std::string> Events() const;
    // For Response::HoldBodyAt: waits until `count` requests have been held so far (true) or
    // `limit` has passed (false); ReleaseHolds lets every held request, and every later one,
    // read on.
    bool WaitForHold(std::size_t count = 1, std::chrono::milliseconds limit = std::chrono::seconds(10)) const;
    void ReleaseHolds() const;
    std::string Output() const;          // the server's stdout and stderr

private:

    TempDirectory m_dir;
    std::unique_ptr<ChildProcess> m_process;
    unsigned short m_port = 0;
    bool m_tls = false;
    std::string m_certificateFile;
};

}  // namespace OrvaneTest
