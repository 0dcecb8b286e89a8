#pragma once

#include "tests/support/ChildProcess.h"

#include <memory>
#include <string>
#include <vector>

namespace OrvaneTest {

struct ProxyOptions {
    // Non-empty user: the proxy demands these credentials (Basic). Without credentials it
    // answers "407 Proxy Authentication Required" with "Proxy-Authenticate: Basic
    // realm="Tinyproxy""; with wrong ones, mind, "401 Unauthorized" with "WWW-Authenticate:
    // Basic realm="Tinyproxy"", which a client takes for the server's challenge. Both answers
    // are HTTP/1.0 and close the connection. Neither value may hold blanks or quotes.
    std::string user;
    std::string password;
};

// tinyproxy in the foreground on a free 127.0.0.1 port, with its own configuration and log in
// a temporary directory, for the life of this object.
//
// Proof that a request went through it: a plain-HTTP request reaches the server with the
// header "Via: 1.1 orv-test-proxy (tinyproxy/<version>)" and "Connection: close" (the
// absolute-form target rewritten to origin form); an https request is tunnelled with CONNECT
// and reaches the server unchanged, so look for "CONNECT 127.0.0.1:<port> HTTP/1.1" in
// RequestLines(). A proxy-authorization header never reaches the server.
//
// Point the library at it with ProxyEnvironment (tests/support/ProxyEnvironment.h).
class TinyProxy {
public:
    static constexpr const char* kViaName = "orv-test-proxy";

    // Throws std::runtime_error (with tinyproxy's output) when it does not come up.
    explicit TinyProxy(const ProxyOptions& options = {});
    ~TinyProxy();

    TinyProxy(const TinyProxy&) = delete;
    TinyProxy& operator=(const TinyProxy&) = delete;

    unsigned short Port() const { return m_port; }
    std::string Url() const; // "http://127.0.0.1:port"

    // The request lines clients sent, in order, including those refused for missing or
    // wrong credentials: "GET http://127.0.0.1:1234/x HTTP/1.1", "CONNECT 127.0.0.1:1234 HTTP/1.1".
    std::vector<std::string> RequestLines() const;
    // Connections it opened to servers on behalf of clients (requests it let through).
    std::size_t ForwardedConnections() const;
    std::string Log() const;
    int ProcessId() const { return m_process->Pid(); }

private:
    bool TryStart(unsigned short port, const ProxyOptions& options, std::string& failure);

    TempDirectory m_dir;
    std::unique_ptr<ChildProcess> m_process;
    unsigned short m_port = 0;
};

}  // namespace OrvaneTest
