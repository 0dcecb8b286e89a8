// The system proxy as the transport finds it in the environment, proven on the proxy's side
// with tinyproxy: plain HTTP forwarded, https tunnelled, credentials, and no proxy at all.
#include "network/Certificate.h"
#include "network/CurlNetwork.h"
#include "network/CurlNetworkException.h"
#include "rest/BufferRequest.h"
#include "rest/GetRequest.h"
#include "tests/network/TransportFixture.h"
#include "tests/support/TinyProxy.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

using namespace OrvaneInternal;
using namespace OrvaneTest;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Optional;

namespace {

std::string Host(const TestHttpServer& server)
{
    return "127.0.0.1:" + std::to_string(server.Port());
}

}  // namespace

class SystemProxy : public TransportTest {};

TEST_F(SystemProxy, PlainRequestsGoThroughTheSystemProxy)
{
    TestHttpServer server(Script().On("GET", "/get", Response(200).Body("got")).On("POST", "/post", Response(201)));
    TinyProxy proxy;
    ProxyEnvironment environment(proxy.Url());
    CurlNetwork network;

    GetRequest get(server.Url("/get"), "tok");
    BufferReply getReply;
    network.Send(get, getReply);
    EXPECT_EQ(200, getReply.m_status);
    const std::string body = Pattern(200 * 1024);
    BufferRequest post(RestRequest::Post, server.Url("/post"), "tok", Text(body));
    BufferReply postReply;
    network.Send(post, postReply);
    EXPECT_EQ(201, postReply.m_status);

    EXPECT_THAT(proxy.RequestLines(), ElementsAre("GET http://" + Host(server) + "/get HTTP/1.1",
                                                  "POST http://" + Host(server) + "/post HTTP/1.1"));
    const auto requests = server.Requests();
    ASSERT_EQ(2u, requests.size());
    for (const auto& got : requests)
        EXPECT_THAT(got.HeaderValue("Via"), Optional(HasSubstr(TinyProxy::kViaName)));
    EXPECT_EQ(Sha256Hex(body), requests[1].bodySha256);
}

TEST_F(SystemProxy, ProxyCredentialsComeFromSetProxyCredentials)
{
    TestHttpServer server(Script().On("POST", "/post", Response(200).Body("accepted")));
    TinyProxy proxy(ProxyOptions{"orvproxy", "pr0xy-pw"});
    ProxyEnvironment environment(proxy.Url());
    CurlNetwork network;
    network.SetProxyCredentials("orvproxy", "pr0xy-pw");

    const std::string body = Pattern(100 * 1024);
    BufferRequest post(RestRequest::Post, server.Url("/post"), "tok", Text(body));
    CountingReply reply;
    network.Send(post, reply);

    EXPECT_EQ(200, reply.m_status);
    EXPECT_EQ("accepted", reply.Text());
    // One transfer: libcurl's first try meets the proxy's 407 and the second carries the
    // stored credentials, both inside the same transfer.
    EXPECT_EQ(1, reply.clears);
    EXPECT_EQ(2u, proxy.RequestLines().size());
    const auto requests = server.Requests();
    ASSERT_EQ(1u, requests.size());
    EXPECT_THAT(requests[0].HeaderValue("Via"), Optional(HasSubstr(TinyProxy::kViaName)));
    EXPECT_FALSE(requests[0].HasHeader("Proxy-Authorization"));
    EXPECT_EQ(Sha256Hex(body), requests[0].bodySha256);
    EXPECT_EQ(1u, proxy.ForwardedConnections());
}

// libcurl answers the 407 itself. With none stored, the transport still hands it empty
// credentials, so the 407 is answered with those; tinyproxy refuses wrong credentials with a
// 401 challenge, on which the transport spends its one retry. Nothing reaches the server.
TEST_F(SystemProxy, RefusedProxyCredentialsEndInTheProxysStatus)
{
    TestHttpServer server(Script().On("/x", Response(200)));
    TinyProxy proxy(ProxyOptions{"orvproxy", "pr0xy-pw"});
    ProxyEnvironment environment(proxy.Url());

    for (const char* password : {"", "not-it"}) {
        CurlNetwork network;
        if (*password != '\0')
            network.SetProxyCredentials("orvproxy", password);
        GetRequest request(server.Url("/x"), "tok");
        CountingReply reply;
        network.Send(request, reply);
        EXPECT_EQ(401, reply.m_status) << password;
        EXPECT_EQ(2, reply.clears) << password;
    }
    EXPECT_FALSE(proxy.RequestLines().empty());
    EXPECT_EQ(0u, proxy.ForwardedConnections());
    EXPECT_EQ(0u, server.RequestCount());
}

// Nothing named, or the host exempted by no_proxy: no proxy options at all, the request goes
// straight to the server. The settings are read afresh for every request.
TEST_F(SystemProxy, WithoutSystemProxyTheRequestGoesDirect)
{
    TestHttpServer server(Script().On("/x", Response(200)));
    TinyProxy proxy;
    CurlNetwork network;
    auto send = [&] {
        GetRequest request(server.Url("/x"), "tok");
        BufferReply reply;
        network.Send(request, reply);
        EXPECT_EQ(200, reply.m_status);
    };

    send();
    {
        ProxyEnvironment exempted(proxy.Url(), "127.0.0.1");
        send();
    }
    EXPECT_THAT(proxy.RequestLines(), IsEmpty());
    {
        ProxyEnvironment named(proxy.Url());
        send();
    }
    const auto requests = server.Requests();
    ASSERT_EQ(3u, requests.size());
    EXPECT_FALSE(requests[0].HasHeader("Via"));
    EXPECT_FALSE(requests[1].HasHeader("Via"));
    EXPECT_TRUE(requests[2].HasHeader("Via"));
    EXPECT_EQ(1u, proxy.RequestLines().size());
}

TEST_F(SystemProxy, HttpsIsTunnelledThroughTheProxy)
{
    TestHttpServer server(Script().On("/x", Response(200).Body("tunnelled")), Tls());
    const std::string pem = ReadFileBytes(server.CertificateFile());
    const Certificate trusted(std::vector<unsigned char>(pem.begin(), pem.end()), Certificate::Pem);
    Certificate::s_storeLoader = [trusted](const std::wstring& name, std::vector<Certificate>& out) {
        if (name == L"Root")
            out.push_back(trusted);
        return true;
    };
    TinyProxy proxy;
    ProxyEnvironment environment(proxy.Url());
    GetRequest request(server.Url("/x"), "tok");
    BufferReply reply;
    CurlNetwork().Send(request, reply);

    EXPECT_EQ(200, reply.m_status);
    EXPECT_THAT(proxy.RequestLines(), ElementsAre("CONNECT " + Host(server) + " HTTP/1.1"));
    const auto requests = server.Requests();
    ASSERT_EQ(1u, requests.size());
    EXPECT_TRUE(requests[0].tls);
    EXPECT_FALSE(requests[0].HasHeader("Via"));
}

