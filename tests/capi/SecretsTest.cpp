// Neither the sign-in password nor the proxy password ever reaches the log
// file, in any encoding, whether the sign-in succeeds or fails and whichever
// way it fails.
#include <orvane/OrvaneServer.h>

#include "ScriptedPublishSupport.h"
#include "tests/support/ProxyEnvironment.h"
#include "tests/support/TinyProxy.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <set>

using namespace CapiTest;
using OrvaneTest::ProxyEnvironment;
using OrvaneTest::ProxyOptions;
using OrvaneTest::RecordedRequest;
using OrvaneTest::Response;
using OrvaneTest::TestHttpServer;
using OrvaneTest::TinyProxy;

namespace
{

using SecretsTest = StartedLibraryTest;

// One secret in the widths the tests need it in.
struct Secret {
    std::string utf8;
    std::u16string utf16;
    std::u32string utf32;
};
#define ORV_SECRET(text) Secret{u8##text, u##text, U##text}

// Outside ASCII on purpose, one character beyond the BMP among them, so that
// every encoding differs from every other.
const Secret kPassword = ORV_SECRET("Zq8-h1dden-\u00fc\u20ac\U0001D11E");
const Secret kProxyPassword = ORV_SECRET("Kx3-pr0xy-\u00df\u2713");
// tinyproxy takes only plain ASCII credentials.
const Secret kTinyProxyPassword = ORV_SECRET("Tp5-r3lay-s3cret");

Utf16 Caller(const Secret& secret)
{
    return Utf16(secret.utf16.begin(), secret.utf16.end());
}

template <class Unit>
std::string UnitBytes(const std::basic_string<Unit>& text, bool bigEndian)
{
    std::string out;
    for (Unit unit : text)
        for (std::size_t i = 0; i < sizeof(Unit); ++i) {
            const std::size_t shift = 8 * (bigEndian ? sizeof(Unit) - 1 - i : i);
            out += static_cast<char>((static_cast<std::uint32_t>(unit) >> shift) & 0xFF);
        }
    return out;
}

std::string Percent(const std::string& bytes, const char* format)
{
    std::string out;
    for (unsigned char c : bytes) {
        char escaped[4];
        std::snprintf(escaped, sizeof escaped, format, c);
        out += escaped;
    }
    return out;
}

std::string Base64(const std::string& bytes)
{
    static const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        std::uint32_t v = static_cast<unsigned char>(bytes[i]) << 16;
        if (i + 1 < bytes.size())
            v |= static_cast<unsigned char>(bytes[i + 1]) << 8;
        if (i + 2 < bytes.size())
            v |= static_cast<unsigned char>(bytes[i + 2]);
        out += alphabet[(v >> 18) & 63];
        out += alphabet[(v >> 12) & 63];
        out += i + 1 < bytes.size() ? alphabet[(v >> 6) & 63] : '=';
        out += i + 2 < bytes.size() ? alphabet[v & 63] : '=';
    }
    return out;
}

// The forms a secret could take in a file written by this library or by
// anything it calls: text in every width and byte order, URL and Basic
// encodings, and the ASCII core alone, for anything cut or re-encoded.
std::vector<std::pair<std::string, std::string>> Forms(const Secret& secret, const std::string& user)
{
    const std::string& utf8 = secret.utf8;
    return {
        {"UTF-8", utf8},
        {"ASCII core", utf8.substr(0, 9)},
        {"UTF-16LE", UnitBytes(secret.utf16, false)},
        {"UTF-16BE", UnitBytes(secret.utf16, true)},
        {"UTF-32LE", UnitBytes(secret.utf32, false)},
        {"UTF-32BE", UnitBytes(secret.utf32, true)},
        {"percent, upper case", Percent(utf8, "%%%02X")},
        {"percent, lower case", Percent(utf8, "%%%02x")},
        {"base64", Base64(utf8)},
        {"Basic credentials", Base64(user + ":" + utf8)},
    };
}

// A loopback port that refuses connections for as long as this object lives.
class RefusingPort
{
  public:
    RefusingPort() : m_socket(::socket(AF_INET, SOCK_STREAM, 0))
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (m_socket >= 0 && ::bind(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
            ::getsockname(m_socket, reinterpret_cast<sockaddr*>(&address), &length) == 0)
            m_url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    }
    ~RefusingPort()
    {
        if (m_socket >= 0)
            ::close(m_socket);
    }
    RefusingPort(const RefusingPort&) = delete;
    RefusingPort& operator=(const RefusingPort&) = delete;

    const std::string& Url() const { return m_url; }

  private:
    int m_socket;
    std::string m_url;
};

} // namespace

TEST_F(SecretsTest, PasswordsNeverReachTheLogWhateverBecomesOfTheSignIn)
{
    const std::string& password = kPassword.utf8;
    const std::string& proxyPassword = kProxyPassword.utf8;
    const std::string extract = Extract("secret.qrx", "extract bytes");

    TestHttpServer accepting(PublishScript({Response(201).Body(kPublishReply)}));
    TestHttpServer refusing(
        OrvaneTest::Script()
            .Sequence("/api/2.0/auth/signin",
                      {Response(401).Body("<error code=\"401001\"><summary>Signin Error</summary></error>"),
                       Response(500).Body("<html>internal error</html>"),
                       Response(200).Body(kSignInReply).RequireBasicAuth("relay", proxyPassword)}));
    RefusingPort refused;
    ASSERT_FALSE(refused.Url().empty());
    TinyProxy proxy(ProxyOptions{"relay", kTinyProxyPassword.utf8});

    struct Attempt {
        std::string what;
        std::function<ORV_RESULT(Connection&)> call;
        std::set<ORV_RESULT> expected;
    };
    const auto connect = [&](const std::string& url) {
        return [&, url](Connection& c) {
            return OrvServerConnectionConnect(c.Handle(), U(url).c_str(), U("reporter").c_str(),
                                              Caller(kPassword).c_str(), U("").c_str());
        };
    };
    const auto proxyCredentials = [](const Secret& secret) {
        return [secret](Connection& c) {
            return OrvServerConnectionSetProxyCredentials(c.Handle(), U("relay").c_str(), Caller(secret).c_str());
        };
    };
    const auto publish = [&](Connection& c) { return c.Publish(extract, "Sales", "secret", 1); };
    const std::vector<Attempt> attempts{
        {"sign-in accepted", connect(accepting.BaseUrl()), {ORV_RESULT_Success}},
        {"publish", publish, {ORV_RESULT_Success}},
        {"wrong password", connect(refusing.BaseUrl()), {401}},
        {"server error", connect(refusing.BaseUrl()), {401}},
        {"server asks for the proxy credentials, none given", connect(refusing.BaseUrl()), {401}},
        {"proxy credentials given", proxyCredentials(kProxyPassword), {ORV_RESULT_Success}},
        {"server asks for the proxy credentials", connect(refusing.BaseUrl()), {ORV_RESULT_Success}},
        {"connection refused", connect(refused.Url()), {400}},
    };
    Connection connection;
    ASSERT_EQ(ORV_RESULT_Success, connection.Create());
    for (const Attempt& attempt : attempts) {
        SCOPED_TRACE(attempt.what);
        OrvSetLastErrorMessage(L"");
        const ORV_RESULT result = attempt.call(connection);
        EXPECT_EQ(1u, attempt.expected.count(result)) << result << " " << LastError();
        EXPECT_EQ(std::string::npos, LastError().find("h1dden"));
    }

    {
        // Through a proxy that demands its credentials: refused, then let through.
        // The proxy's refusals close the connection under the request body, so
        // libcurl sees either the refusal or the closed connection.
        ProxyEnvironment viaProxy(proxy.Url());
        Connection proxied;
        ASSERT_EQ(ORV_RESULT_Success, proxied.Create());
        const std::set<ORV_RESULT> refusal{400, 401};
        const std::vector<Attempt> proxiedAttempts{
            {"no proxy credentials", connect(accepting.BaseUrl()), refusal},
            {"wrong proxy credentials", proxyCredentials(kProxyPassword), {ORV_RESULT_Success}},
            {"refused by the proxy", connect(accepting.BaseUrl()), refusal},
            {"right proxy credentials", proxyCredentials(kTinyProxyPassword), {ORV_RESULT_Success}},
            {"sign-in through the proxy", connect(accepting.BaseUrl()), {ORV_RESULT_Success}},
            {"publish through the proxy", publish, {ORV_RESULT_Success}},
            {"server unreachable behind the proxy", connect(refused.Url()), refusal},
        };
        for (const Attempt& attempt : proxiedAttempts) {
            SCOPED_TRACE(attempt.what);
            OrvSetLastErrorMessage(L"");
            const ORV_RESULT result = attempt.call(proxied);
            EXPECT_EQ(1u, attempt.expected.count(result)) << result << " " << LastError();
            EXPECT_EQ(std::string::npos, LastError().find("h1dden"));
        }
        EXPECT_GE(proxy.ForwardedConnections(), 3u);
    }

    // The secrets did go out, so their absence from the log means something.
    const std::vector<RecordedRequest> signIns = accepting.Requests();
    ASSERT_FALSE(signIns.empty());
    EXPECT_NE(std::string::npos, signIns[0].body.find("password=\"" + password + "\""));
    bool proxyCredentialsSent = false;
    for (const RecordedRequest& request : refusing.Requests(false))
        proxyCredentialsSent |= request.HeaderValue("Authorization") == "Basic " + Base64("relay:" + proxyPassword);
    EXPECT_TRUE(proxyCredentialsSent);

    const std::string log = StopAndReadLog();
    ASSERT_NE(std::string::npos, log.find("): Username  : reporter\n")) << log;
    ASSERT_NE(std::string::npos, log.find("): Server Response Code: 500\n")) << log;
    ASSERT_NE(std::string::npos, log.find("): Couldn't connect to server\n")) << log;
    for (const auto& secret : {std::make_pair(kPassword, std::string("reporter")),
                               std::make_pair(kProxyPassword, std::string("relay")),
                               std::make_pair(kTinyProxyPassword, std::string("relay"))}) {
        for (const auto& form : Forms(secret.first, secret.second)) {
            SCOPED_TRACE(form.first);
            EXPECT_EQ(std::string::npos, log.find(form.second)) << secret.first.utf8;
        }
    }
}
