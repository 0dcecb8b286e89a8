#pragma once

#include <string>
#include <vector>

namespace OrvaneTest {

// Sets the proxy environment for one test and restores the previous one on destruction.
// `proxyUrl` goes into http_proxy and https_proxy (empty: both unset); `noProxy` into no_proxy
// (empty: unset). The upper-case variants and all_proxy are unset, since libcurl reads some of
// them itself when the transport gives it no proxy.
//
// Why these variables: the transport asks Qt's system proxy factory, which in this Qt build
// (no libproxy) reads only the lower-case http_proxy (for http URLs, and for https URLs when
// https_proxy is unset), https_proxy and no_proxy, afresh at every query: nothing is cached,
// so a change is seen by the next request. With none set it answers one NoProxy entry. The
// proxy URL must carry scheme and port ("http://127.0.0.1:8888"; "socks5://..." gives a SOCKS5
// entry): without a scheme the host comes out empty, without a port the port is 65535.
// no_proxy entries are compared with the URL's host name exactly ("*" and address ranges are
// not understood) and loopback is not exempted by default, so with no_proxy unset requests
// to 127.0.0.1 do go through the proxy.
//
// The environment is process-wide: set it before the request and not while another thread
// may read it.
class ProxyEnvironment {
public:
    explicit ProxyEnvironment(const std::string& proxyUrl, const std::string& noProxy = {});
    ~ProxyEnvironment();

    ProxyEnvironment(const ProxyEnvironment&) = delete;
    ProxyEnvironment& operator=(const ProxyEnvironment&) = delete;

private:
    struct Saved {
        std::string name;
        bool wasSet;
        std::string value;
    };
    std::vector<Saved> m_saved;
};

}  // namespace OrvaneTest
