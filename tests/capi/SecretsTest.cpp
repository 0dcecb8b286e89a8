// Neither the sign-in password nor the proxy password ever reaches the log
// file, in any encoding, whether the sign-in succeeds or fails and however.
#include "CapiTestSupport.h"
#include "tests/support/TinyProxy.h"

#include <cstdio>
#include <functional>
#include <set>

using namespace CapiTest;
using OrvaneTest::ProxyEnvironment;

namespace {

using SecretsTest = StartedTest;

struct Secret {
    std::string utf8;
    std::u16string utf16;
    std::u32string utf32;
};
#define ORV_SECRET(text) Secret{u8##text, u##text, U##text}
// Outside ASCII on purpose, one character beyond the BMP, so every encoding differs.
const Secret kPassword = ORV_SECRET("Zq8-h1dden-\u00fc\u20ac\U0001D11E");
const Secret kProxyPassword = ORV_SECRET("Kx3-pr0xy-\u00df\u2713");
const Secret kTinyProxyPassword = ORV_SECRET("Tp5-r3lay-s3cret");  // tinyproxy takes plain ASCII only

template <class Unit>
std::string UnitBytes(const std::basic_string<Unit>& text, bool bigEndian)
{
    std::string out;
    for (Unit unit : text)
        for (std::size_t i = 0; i < sizeof(Unit); ++i)
            out += static_cast<char>((static_cast<std::uint32_t>(unit) >> (8 * (bigEndian ? sizeof(Unit) - 1 - i : i))) & 0xFF);
    return out;
}

std::string Percent(const std::string& bytes, const char* format)
{
    std::string out;
    char escaped[4];
    for (unsigned char c : bytes)
        out += (std::snprintf(escaped, sizeof escaped, format, c), escaped);
    return out;
}

std::string Base64(const std::string& bytes)
{
    static const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        std::uint32_t v = static_cast<unsigned char>(bytes[i]) << 16;
        v |= i + 1 < bytes.size() ? static_cast<unsigned char>(bytes[i + 1]) << 8 : 0;
        v |= i + 2 < bytes.size() ? static_cast<unsigned char>(bytes[i + 2]) : 0;
        out += alphabet[(v >> 18) & 63];
        out += alphabet[(v >> 12) & 63];
        out += i + 1 < bytes.size() ? alphabet[(v >> 6) & 63] : '=';
        out += i + 2 < bytes.size() ? alphabet[v & 63] : '=';
    }
    return out;
}

// The forms a secret could take in a file: every width and byte order, URL and
// Basic encodings, and the ASCII core alone, for anything cut or re-encoded.
std::vector<std::pair<std::string, std::string>> Forms(const Secret& secret, const std::string& user)
{
    return {{"UTF-8", secret.utf8},
            {"ASCII core", secret.utf8.substr(0, 9)},
            {"UTF-16LE", UnitBytes(secret.utf16, false)},
            {"UTF-16BE", UnitBytes(secret.utf16, true)},
            {"UTF-32LE", UnitBytes(secret.utf32, false)},
            {"UTF-32BE", UnitBytes(secret.utf32, true)},
            {"percent, upper case", Percent(secret.utf8, "%%%02X")},
            {"percent, lower case", Percent(secret.utf8, "%%%02x")},
            {"base64", Base64(secret.utf8)},
            {"Basic credentials", Base64(user + ":" + secret.utf8)}};
}

struct Attempt {
    std::string what;
    std::function<ORV_RESULT(Connection&)> call;
    std::set<ORV_RESULT> expected;
};

void Try(Connection& connection, const std::vector<Attempt>& attempts)
{
    for (const Attempt& attempt : attempts) {
        SCOPED_TRACE(attempt.what);
        OrvSetLastErrorMessage(L"");
        const ORV_RESULT result = attempt.call(connection);
        EXPECT_EQ(1u, attempt.expected.count(result)) << result << " " << LastError();
        EXPECT_EQ(std::string::npos, LastError().find("h1dden"));
    }
}

}  // namespace

TEST_F(SecretsTest, PasswordsNeverReachTheLogWhateverBecomesOfTheSignIn)
{
    const std::string extract = Extract("secret.qrx", "extract bytes");
    TestHttpServer accepting(PublishScript({Response(201).Body(kPublishReply)}));
    TestHttpServer refusing(OrvaneTest::Script().Sequence(
        "/api/2.0/auth/signin",
        {Response(401).Body("<error code=\"401001\"><summary>Signin Error</summary></error>"),
         Response(500).Body("<html>internal error</html>"), Response(200).CloseWithoutAnswer(),
         Response(200).Body(kSignInReply).RequireBasicAuth("relay", kProxyPassword.utf8)}));
    OrvaneTest::TinyProxy proxy(OrvaneTest::ProxyOptions{"relay", kTinyProxyPassword.utf8});

    const auto connect = [](const std::string& url) {
        return [url](Connection& c) {
            const std::u16string& password = kPassword.utf16;
            return OrvServerConnectionConnect(c.Handle(), U(url).c_str(), U("reporter").c_str(),
                                              Utf16(password.begin(), password.end()).c_str(), U("").c_str());
        };
    };
    const auto proxyCredentials = [](const Secret& secret) {
        return [secret](Connection& c) {
            return OrvServerConnectionSetProxyCredentials(
                c.Handle(), U("relay").c_str(), Utf16(secret.utf16.begin(), secret.utf16.end()).c_str());
        };
    };
    const auto publish = [&](Connection& c) { return c.Publish(extract, "Sales", "secret", 1); };
    Connection direct;
    ASSERT_EQ(ORV_RESULT_Success, direct.Create());
    Try(direct, {
                    {"sign-in accepted", connect(accepting.BaseUrl()), {ORV_RESULT_Success}},
                    {"publish", publish, {ORV_RESULT_Success}},
                    {"wrong password", connect(refusing.BaseUrl()), {401}},
                    {"server error", connect(refusing.BaseUrl()), {401}},
                    {"connection closed without an answer", connect(refusing.BaseUrl()), {400}},
                    {"server asks for the proxy credentials, none given", connect(refusing.BaseUrl()), {401}},
                    {"proxy credentials given", proxyCredentials(kProxyPassword), {ORV_RESULT_Success}},
                    {"server asks for the proxy credentials", connect(refusing.BaseUrl()), {ORV_RESULT_Success}},
                });
    {
        // Through a proxy that demands its credentials: refused, then let through.
        // Its refusals close the connection under the request body, so libcurl
        // sees either the refusal or the closed connection.
        ProxyEnvironment viaProxy(proxy.Url());
        Connection proxied;
        ASSERT_EQ(ORV_RESULT_Success, proxied.Create());
        const std::set<ORV_RESULT> refusal{400, 401};
        Try(proxied, {
                         {"no proxy credentials", connect(accepting.BaseUrl()), refusal},
                         {"wrong proxy credentials", proxyCredentials(kProxyPassword), {ORV_RESULT_Success}},
                         {"refused by the proxy", connect(accepting.BaseUrl()), refusal},
                         {"right proxy credentials", proxyCredentials(kTinyProxyPassword), {ORV_RESULT_Success}},
                         {"sign-in through the proxy", connect(accepting.BaseUrl()), {ORV_RESULT_Success}},
                         {"publish through the proxy", publish, {ORV_RESULT_Success}},
                     });
        EXPECT_GE(proxy.ForwardedConnections(), 2u);
    }

    // The secrets did go out, so their absence from the log means something.
    const std::vector<RecordedRequest> signIns = accepting.Requests();
    ASSERT_FALSE(signIns.empty());
    EXPECT_NE(std::string::npos, signIns[0].body.find("password=\"" + kPassword.utf8 + "\""));
    bool proxyCredentialsSent = false;
    for (const RecordedRequest& request : refusing.Requests(false))
        proxyCredentialsSent |= request.HeaderValue("Authorization") == "Basic " + Base64("relay:" + kProxyPassword.utf8);
    EXPECT_TRUE(proxyCredentialsSent);

    const std::string log = StopAndReadLog();
    ASSERT_NE(std::string::npos, log.find("): Username  : reporter\n")) << log;
    ASSERT_NE(std::string::npos, log.find("): Server Response Code: 500\n")) << log;
    ASSERT_NE(std::string::npos, log.find("): Server returned nothing (no headers, no data)\n")) << log;
    for (const auto& [secret, user] : {std::make_pair(kPassword, std::string("reporter")),
                                       std::make_pair(kProxyPassword, std::string("relay")),
                                       std::make_pair(kTinyProxyPassword, std::string("relay"))})
        for (const auto& form : Forms(secret, user)) {
            SCOPED_TRACE(form.first);
            EXPECT_EQ(std::string::npos, log.find(form.second)) << secret.utf8;
        }
}
