#pragma once

#include "tests/support/ChildProcess.h"

#include <memory>
#include <string>
#include <vector>

namespace OrvaneTest {

struct ProxyOptions {
    // Non-empty: the proxy demands these Basic credentials (no blanks or quotes). Without any
    // it answers 407; with wrong ones, mind, "401 Unauthorized" with a WWW-Authenticate
    // challenge, which a client takes for the server's. Both answers close the connection.
    std::string user;
    std::string password;
};

// tinyproxy on a free 127.0.0.1 port with its own configuration and log, for the life of this
// object. Proof of passage: a plain-HTTP request reaches the server with "Via: 1.1
// orv-test-proxy (tinyproxy/<version>)"; an https request is tunnelled, so look for
// "CONNECT 127.0.0.1:<port> HTTP/1.1" in RequestLines(). Point the library at it with
// ProxyEnvironment.
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

private:
    bool TryStart(unsigned short port, const ProxyOptions& options, std::string& failure);

    TempDirectory m_dir;
    std::unique_ptr<ChildProcess> m_process;
    unsigned short m_port = 0;
};

}  // namespace OrvaneTest
