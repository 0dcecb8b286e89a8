#include "tests/support/ProxyEnvironment.h"

#include <cstdlib>

namespace OrvaneTest {

namespace {

const char* const kVariables[] = {"http_proxy", "https_proxy", "no_proxy",  "all_proxy",
                                  "HTTP_PROXY", "HTTPS_PROXY", "NO_PROXY", "ALL_PROXY"};

}  // namespace

ProxyEnvironment::ProxyEnvironment(const std::string& proxyUrl, const std::string& noProxy)
{
    for (const char* name : kVariables) {
        const char* value = std::getenv(name);
        m_saved.push_back(Saved{name, value != nullptr, value != nullptr ? value : ""});
        unsetenv(name);
    }
    if (!proxyUrl.empty()) {
        setenv("http_proxy", proxyUrl.c_str(), 1);
        setenv("https_proxy", proxyUrl.c_str(), 1);
    }
    if (!noProxy.empty()) {
        setenv("no_proxy", noProxy.c_str(), 1);
    }
}

ProxyEnvironment::~ProxyEnvironment()
{
    for (const auto& saved : m_saved) {
        if (saved.wasSet) {
            setenv(saved.name.c_str(), saved.value.c_str(), 1);
        } else {
            unsetenv(saved.name.c_str());
        }
    }
}

}  // namespace OrvaneTest
