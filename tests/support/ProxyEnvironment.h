#pragma once

#include <string>
#include <vector>

namespace OrvaneTest {

// Sets the proxy environment for one test and restores the previous one on destruction:
// `proxyUrl` ("http://127.0.0.1:port", scheme and port required) into http_proxy and
// https_proxy, `noProxy` into no_proxy (empty: unset); the upper-case variants and all_proxy
// are unset. Qt's system proxy factory (no libproxy) reads exactly these lower-case variables
// afresh at every query; no_proxy names hosts exactly and loopback is not exempt by default.
// The environment is process-wide: do not change it while another thread may read it.
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
