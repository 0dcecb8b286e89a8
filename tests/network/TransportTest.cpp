// The libcurl transport against real peers where the exported functions cannot reach: the system
// proxy as Qt finds it (tinyproxy: forwarded, exempted, tunnelled) and trust widened through a
// certificate store (the platform's stores are empty, so only the store seam can fill one).
#include "network/Certificate.h"
#include "network/CurlNetwork.h"
#include "network/CurlNetworkException.h"
#include "network/CurlNetworkStatic.h"
#include "rest/BufferReply.h"
#include "rest/GetRequest.h"
#include "tests/support/TestSupport.h"

using namespace OrvaneInternal;
using namespace OrvaneTest;

namespace {

class TransportTest : public ::testing::Test {
protected:
    void SetUp() override { CurlNetworkStatic::CurlInit(); }
    void TearDown() override
    {
        Certificate::s_storeLoader = nullptr;
        CurlNetworkStatic::CurlCleanup();
    }
    // GET `url`; the status, or libcurl's text when the exchange fails.
    static std::string Get(CurlNetwork& network, const std::string& url)
    {
        GetRequest request(url, "tok");
        BufferReply reply;
        try {
            network.Send(request, reply);
        } catch (const CurlNetworkException& e) {
            return e.what();
        }
        return std::to_string(reply.m_status) + " " + std::string(reply.m_data.begin(), reply.m_data.end());
    }
    // Hands out `trusted` as the "Root" store and counts the stores asked for.
    void TrustThroughStore(const std::string& pemFile)
    {
        const std::string pem = pemFile.empty() ? "" : ReadFileBytes(pemFile);
        Certificate::s_storeLoader = [this, pem](const std::wstring& name, std::vector<Certificate>& out) {
            ++m_storesAsked;
            if (name == L"Root" && !pem.empty())
                out.emplace_back(std::vector<unsigned char>(pem.begin(), pem.end()), Certificate::Pem);
            return true;
        };
    }
    int m_storesAsked = 0;
};

}  // namespace

// Settings are read afresh for every request: none, the host exempted by no_proxy, a proxy named.
TEST_F(TransportTest, PlainRequestsGoThroughTheSystemProxyUnlessExempted)
{
    TestHttpServer server(Script().On("/x", Response(200).Body("ok")));
    TinyProxy proxy;
    CurlNetwork network;
    const struct {
        std::string proxyUrl, noProxy;
        bool viaProxy;
    } cases[] = {{"", "", false}, {proxy.Url(), "127.0.0.1", false}, {proxy.Url(), "", true}, {"", "", false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.proxyUrl + " / " + c.noProxy);
        ProxyEnvironment environment(c.proxyUrl, c.noProxy);
        EXPECT_EQ("200 ok", Get(network, server.Url("/x")));
        EXPECT_EQ(c.viaProxy, server.Requests().back().HeaderValue("Via").value_or("").find("orv-test-proxy") != std::string::npos);
    }
    EXPECT_EQ(std::vector<std::string>{"GET " + server.Url("/x") + " HTTP/1.1"}, proxy.RequestLines());
}

// Verification stays on: a self-signed server is refused at every handshake (stores read once a
// transport); once its certificate is in a store the handshake succeeds, also tunnelled through a proxy.
TEST_F(TransportTest, SelfSignedServerIsRefusedUnlessTrustedThroughAStore)
{
    TestHttpServer server(Script().On("/x", Response(200).Body("secure")), ServerOptions{true, true, 0});
    ProxyEnvironment noProxy("");
    TrustThroughStore("");
    CurlNetwork untrusting;
    for (int attempt = 0; attempt < 2; ++attempt)
        EXPECT_EQ(curl_easy_strerror(CURLE_PEER_FAILED_VERIFICATION), Get(untrusting, server.Url("/x")));
    EXPECT_EQ(3, m_storesAsked);
    EXPECT_EQ(0u, server.RequestCount());
    EXPECT_TRUE(WaitUntil([&] { return server.Events().size() >= 2; }));
    for (const std::string& event : server.Events())
        EXPECT_EQ(0u, event.rfind("tls-failed ", 0)) << event;

    TrustThroughStore(server.CertificateFile());
    CurlNetwork trusting;
    EXPECT_EQ("200 secure", Get(trusting, server.Url("/x")));
    TinyProxy proxy;
    ProxyEnvironment viaProxy(proxy.Url());
    EXPECT_EQ("200 secure", Get(trusting, server.Url("/x")));
    EXPECT_EQ(std::vector<std::string>{"CONNECT 127.0.0.1:" + std::to_string(server.Port()) + " HTTP/1.1"}, proxy.RequestLines());
    EXPECT_EQ(2u, server.RequestCount());
}
