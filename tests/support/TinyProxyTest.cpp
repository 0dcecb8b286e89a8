#include "tests/support/CurlCall.h"
#include "tests/support/ProxyEnvironment.h"
#include "tests/support/TestHttpServer.h"
#include "tests/support/TinyProxy.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QNetworkProxy>
#include <QNetworkProxyFactory>
#include <QNetworkProxyQuery>
#include <QUrl>

#include <signal.h>

#include <cerrno>
#include <cstdlib>

using namespace OrvaneTest;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

CurlCall Through(const TinyProxy& proxy, const std::string& url)
{
    CurlCall call;
    call.url = url;
    call.proxy = proxy.Url();
    return call;
}

QList<QNetworkProxy> SystemProxiesFor(const std::string& url)
{
    QNetworkProxyFactory::setUseSystemConfiguration(true);
    QNetworkProxyQuery query(QUrl(QString::fromLatin1(url.c_str()), QUrl::TolerantMode),
                             QNetworkProxyQuery::UrlRequest);
    return QNetworkProxyFactory::systemProxyForQuery(query);
}

std::string Env(const char* name)
{
    const char* value = std::getenv(name);
    return value != nullptr ? value : "<unset>";
}

}  // namespace

TEST(TinyProxy, ForwardsPlainHttpAndMarksItWithVia)
{
    TestHttpServer server(Script().On("/x", Response(200).Body("via proxy")));
    TinyProxy proxy;

    CurlResult result = Perform(Through(proxy, server.Url("/x?q=1")));
    ASSERT_EQ(CURLE_OK, result.code) << result.error << "\n" << proxy.Log();
    EXPECT_EQ(200, result.status);
    EXPECT_EQ("via proxy", result.body);

    std::vector<RecordedRequest> requests = server.Requests();
    ASSERT_EQ(1u, requests.size());
    EXPECT_EQ("/x?q=1", requests[0].target);
    EXPECT_THAT(requests[0].HeaderValue("Via").value_or("<absent>"),
                StartsWith(std::string("1.1 ") + TinyProxy::kViaName + " (tinyproxy/"));
    EXPECT_THAT(proxy.RequestLines(), ElementsAre("GET " + server.Url("/x?q=1") + " HTTP/1.1"));
    EXPECT_EQ(1u, proxy.ForwardedConnections());
}

TEST(TinyProxy, DemandsItsBasicCredentials)
{
    TestHttpServer server(Script().On("POST", "/up", Response(200).Body("stored")));
    TinyProxy proxy(ProxyOptions{"proxyuser", "proxypass"});

    CurlCall anonymous = Through(proxy, server.Url("/up"));
    anonymous.post = true;
    anonymous.body = "data";
    EXPECT_EQ(407, Perform(anonymous).status);

    CurlCall wrong = anonymous;
    wrong.proxyUser = "proxyuser";
    wrong.proxyPassword = "nope";
    CurlResult refused = Perform(wrong);
    EXPECT_EQ(401, refused.status);
    EXPECT_THAT(refused.headerLines, Contains("WWW-Authenticate: Basic realm=\"Tinyproxy\""));
    EXPECT_EQ(0u, server.RequestCount());

    // Both schemes offered, as the transport does: the client first asks without credentials.
    CurlCall right = wrong;
    right.proxyPassword = "proxypass";
    right.proxyAuth = CURLAUTH_BASIC | CURLAUTH_NTLM;
    CurlResult result = Perform(right);
    ASSERT_EQ(CURLE_OK, result.code) << result.error << "\n" << proxy.Log();
    EXPECT_EQ(200, result.status);
    EXPECT_EQ("stored", result.body);

    std::vector<RecordedRequest> requests = server.Requests();
    ASSERT_EQ(1u, requests.size());
    EXPECT_EQ("data", requests[0].body);
    EXPECT_TRUE(requests[0].HasHeader("Via"));
    EXPECT_FALSE(requests[0].HasHeader("Proxy-Authorization"));
    EXPECT_EQ(1u, proxy.ForwardedConnections());
}

TEST(TinyProxy, TunnelsHttpsWithConnect)
{
    ServerOptions options;
    options.tls = true;
    TestHttpServer server(Script().On("/secure", Response(200).Body("tunnelled")), options);
    TinyProxy proxy;

    CurlCall call = Through(proxy, server.Url("/secure"));
    call.caFile = server.CertificateFile();
    CurlResult result = Perform(call);
    ASSERT_EQ(CURLE_OK, result.code) << result.error << "\n" << proxy.Log();
    EXPECT_EQ("tunnelled", result.body);

    EXPECT_THAT(proxy.RequestLines(),
                ElementsAre("CONNECT 127.0.0.1:" + std::to_string(server.Port()) + " HTTP/1.1"));
    std::vector<RecordedRequest> requests = server.Requests();
    ASSERT_EQ(1u, requests.size());
    EXPECT_TRUE(requests[0].tls);
    EXPECT_FALSE(requests[0].HasHeader("Via"));
}

TEST(TinyProxy, DestructionStopsTheProxy)
{
    pid_t pid = -1;
    {
        TinyProxy proxy;
        pid = proxy.ProcessId();
        ASSERT_EQ(0, kill(pid, 0));
    }
    errno = 0;
    EXPECT_EQ(-1, kill(pid, 0));
    EXPECT_EQ(ESRCH, errno);
}

TEST(ProxyEnvironment, SetsTheLowerCaseVariablesAndRestoresThePreviousOnes)
{
    setenv("http_proxy", "http://127.0.0.1:1", 1);
    setenv("NO_PROXY", "127.0.0.1", 1);
    unsetenv("https_proxy");
    unsetenv("no_proxy");
    {
        ProxyEnvironment environment("http://127.0.0.1:3128", "example.invalid");
        EXPECT_EQ("http://127.0.0.1:3128", Env("http_proxy"));
        EXPECT_EQ("http://127.0.0.1:3128", Env("https_proxy"));
        EXPECT_EQ("example.invalid", Env("no_proxy"));
        EXPECT_EQ("<unset>", Env("NO_PROXY"));
    }
    EXPECT_EQ("http://127.0.0.1:1", Env("http_proxy"));
    EXPECT_EQ("<unset>", Env("https_proxy"));
    EXPECT_EQ("<unset>", Env("no_proxy"));
    EXPECT_EQ("127.0.0.1", Env("NO_PROXY"));
}

// What the transport relies on when it asks Qt for the system proxy of a loopback URL.
TEST(ProxyEnvironment, QtSystemProxyFollowsTheEnvironmentAtEveryQuery)
{
    {
        ProxyEnvironment none("");
        QList<QNetworkProxy> proxies = SystemProxiesFor("http://127.0.0.1:1/x");
        ASSERT_EQ(1, proxies.size());
        EXPECT_EQ(QNetworkProxy::NoProxy, proxies[0].type());
    }
    {
        ProxyEnvironment environment("http://127.0.0.1:3128");
        for (const char* url : {"http://127.0.0.1:1/x", "https://127.0.0.1:1/x", "http://localhost:1/x"}) {
            SCOPED_TRACE(url);
            QList<QNetworkProxy> proxies = SystemProxiesFor(url);
            ASSERT_EQ(1, proxies.size());
            EXPECT_EQ(QNetworkProxy::HttpProxy, proxies[0].type());
            EXPECT_EQ("127.0.0.1", proxies[0].hostName().toStdString());
            EXPECT_EQ(3128, proxies[0].port());
        }
    }
    {
        ProxyEnvironment exempt("http://127.0.0.1:3128", "localhost,127.0.0.1");
        EXPECT_EQ(QNetworkProxy::NoProxy, SystemProxiesFor("http://127.0.0.1:1/x").value(0).type());
    }
    {
        ProxyEnvironment socks("socks5://127.0.0.1:1080");
        QNetworkProxy proxy = SystemProxiesFor("https://127.0.0.1:1/x").value(0);
        EXPECT_EQ(QNetworkProxy::Socks5Proxy, proxy.type());
        EXPECT_EQ(1080, proxy.port());
    }
}

TEST(ProxyEnvironment, LibcurlWithoutProxyOptionsUsesTheSameProxy)
{
    TestHttpServer server(Script().On("/", Response(200)));
    TinyProxy proxy;
    ProxyEnvironment environment(proxy.Url());

    CurlCall call;
    call.url = server.Url("/");
    call.proxyFromEnvironment = true;
    ASSERT_EQ(200, Perform(call).status);
    EXPECT_THAT(proxy.RequestLines(), Contains(HasSubstr(server.Url("/"))));
}
