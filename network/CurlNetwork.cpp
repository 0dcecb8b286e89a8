#include "network/CurlNetwork.h"

#include "logging/Logger.h"
#include "network/CurlNetworkException.h"
#include "network/CurlTransfer.h"
#include "rest/RestReply.h"
#include "rest/RestRequest.h"
#include "server/SessionOptions.h"

#include <QtCore/QList>
#include <QtCore/QString>
#include <QtCore/QUrl>
#include <QtNetwork/QNetworkProxy>
#include <QtNetwork/QNetworkProxyFactory>
#include <QtNetwork/QNetworkProxyQuery>

#include <cctype>
#include <memory>

namespace OrvaneInternal {

namespace {

struct EasyDeleter {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
using EasyHandle = std::unique_ptr<CURL, EasyDeleter>;

struct UrlDeleter {
    void operator()(CURLU* url) const { curl_url_cleanup(url); }
};

void AppendHeader(CurlHeaderList& headers, const std::string& line)
{
    curl_slist* grown = curl_slist_append(headers.get(), line.c_str());
    if (grown == nullptr)
        throw CurlNetworkException(CURLE_OUT_OF_MEMORY);
    headers.release();
    headers.reset(grown);
}

// Scheme, host and port of a URL ("" for a part it lacks), lower case.
struct Origin {
    std::string scheme;
    std::string host;
    std::string port;

    static Origin Of(const std::string& url)
    {
        std::unique_ptr<CURLU, UrlDeleter> parsed(curl_url());
        Origin origin;
        if (!parsed || curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK)
            return origin;
        origin.scheme = Part(parsed.get(), CURLUPART_SCHEME, 0);
        origin.host = Part(parsed.get(), CURLUPART_HOST, 0);
        origin.port = Part(parsed.get(), CURLUPART_PORT, CURLU_DEFAULT_PORT);
        for (char& c : origin.host)
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        return origin;
    }
    static std::string Part(CURLU* url, CURLUPart part, unsigned flags)
    {
        char* text = nullptr;
        if (curl_url_get(url, part, &text, flags) != CURLUE_OK)
            return std::string();
        const std::string value(text);
        curl_free(text);
        return value;
    }
};

bool RedirectAllowed(SessionOptions::RedirectPolicy policy, const std::string& from, const std::string& to)
{
    const Origin source = Origin::Of(from);
    const Origin target = Origin::Of(to);
    switch (policy) {
    case SessionOptions::RedirectPolicy::NoDowngrade:
        return !(source.scheme == "https" && target.scheme != "https");
    case SessionOptions::RedirectPolicy::SameOrigin:
        return !target.scheme.empty() && source.scheme == target.scheme && source.host == target.host &&
               source.port == target.port;
    case SessionOptions::RedirectPolicy::Follow:
        break;
    }
    return true;
}

// A redirect policy's handle follows redirects itself; without a limit of
// its own, this many keep a redirect loop from running forever.
constexpr long kRedirectsWithoutLimit = 50;

} // namespace

CurlHeaderList MakeHeaderList(const RestRequest& request)
{
    // Both lines go on every request, even with empty values; libcurl itself
    // then leaves a line with an empty value off the wire.
    CurlHeaderList headers;
    AppendHeader(headers, "Content-Type: " + request.m_contentType);
    AppendHeader(headers, "X-Orvane-Auth: " + request.m_token);
    return headers;
}

void CurlNetwork::SetProxyCredentials(const std::string& user, const std::string& password)
{
    m_proxyUser = user;
    m_proxyPassword = password;
    m_proxyCredentialsSet = true;
}

void CurlNetwork::Auth(const std::string&, unsigned short, CurlNetworkProxy::ProtocolType, std::string& user,
                       std::string& password)
{
    user = m_proxyUser;
    password = m_proxyPassword;
}

std::map<std::wstring, std::vector<Certificate>>& CurlNetwork::GetCACertficates()
{
    if (!m_caCertificates.empty())
        return m_caCertificates;
    // Every name is inserted, even with an empty vector, so the stores are
    // read once per transport.
    for (const wchar_t* name : {L"My", L"Root", L"CA"}) {
        std::vector<Certificate> certificates;
        Certificate::TryLoadCertificates(name, certificates);
        m_caCertificates[name] = certificates;
    }
    return m_caCertificates;
}

void CurlNetwork::SetProxy(CURL* handle, const std::string& url)
{
    QNetworkProxyFactory::setUseSystemConfiguration(true);
    const QUrl target(QString::fromLatin1(url.c_str()), QUrl::TolerantMode);
    const QNetworkProxyQuery query(target, QNetworkProxyQuery::UrlRequest);
    const QList<QNetworkProxy> proxies = QNetworkProxyFactory::systemProxyForQuery(query);
    if (proxies.isEmpty())
        return;
    const QNetworkProxy& proxy = proxies.first(); // the others are never tried
    std::string host = proxy.hostName().toUtf8().toStdString();
    long curlType = CURLPROXY_HTTP;
    switch (proxy.type()) {
    case QNetworkProxy::DefaultProxy:
    case QNetworkProxy::HttpProxy:
    case QNetworkProxy::HttpCachingProxy:
        curlType = CURLPROXY_HTTP;
        break;
    case QNetworkProxy::Socks5Proxy:
        curlType = CURLPROXY_SOCKS5;
        break;
    case QNetworkProxy::NoProxy:
        host.clear();
        break;
    default:
        throw CurlNetworkException(std::string("CurlNetwork error: Unknown proxy type."));
    }
    if (host.empty())
        return;
    const unsigned short port = proxy.port();
    SetOpt(handle, CURLOPT_PROXY, host.c_str());
    SetOpt(handle, CURLOPT_PROXYPORT, static_cast<long>(port));
    SetOpt(handle, CURLOPT_PROXYTYPE, curlType);
    SetOpt(handle, CURLOPT_PROXYAUTH, static_cast<long>(CURLAUTH_BASIC | CURLAUTH_NTLM));
    std::string user;
    std::string password;
    Auth(host, port, static_cast<CurlNetworkProxy::ProtocolType>(proxy.type()), user, password);
    // Set even when empty: the proxy decides whether it needs them.
    SetOpt(handle, CURLOPT_PROXYUSERNAME, user.c_str());
    SetOpt(handle, CURLOPT_PROXYPASSWORD, password.c_str());
}

bool CurlNetwork::HandleAuthentication(CURL* handle, long responseCode)
{
    // 407 is left to libcurl, which answers the proxy with the proxy options.
    if (responseCode == 401)
        return Authenticate(handle);
    return false;
}

bool CurlNetwork::Authenticate(CURL* handle)
{
    long available = 0;
    Check(curl_easy_getinfo(handle, CURLINFO_HTTPAUTH_AVAIL, &available));
    constexpr long kSupported = CURLAUTH_BASIC | CURLAUTH_GSSNEGOTIATE | CURLAUTH_NTLM;
    if ((available & kSupported) == 0 || m_authenticationTried)
        return false;
    m_authenticationTried = true;

    char* effective = nullptr;
    Check(curl_easy_getinfo(handle, CURLINFO_EFFECTIVE_URL, &effective));
    const std::string effectiveUrl = effective ? effective : "";
    const QUrl url(QString::fromUtf8(effectiveUrl.c_str()));
    const std::string host = url.host(QUrl::FullyDecoded).toUtf8().toStdString();
    const int namedPort = url.port(-1);
    // Without a port 80 is assumed, for https too: the value only reaches Auth.
    unsigned short port = 80;
    if (namedPort != -1) {
        if (namedPort < 1 || namedPort > 65535)
            throw CurlNetworkException("CurlNetwork: Invalid port for URL: " + effectiveUrl);
        port = static_cast<unsigned short>(namedPort);
    }
    std::string user;
    std::string password;
    Auth(host, port, CurlNetworkProxy::NoProxy, user, password);
    SetOpt(handle, CURLOPT_USERNAME, user.c_str());
    SetOpt(handle, CURLOPT_PASSWORD, password.c_str());
    SetOpt(handle, CURLOPT_HTTPAUTH, kSupported);
    return true;
}

bool CurlNetwork::FollowRedirect(CURL* handle, const SessionOptions& options, long status, std::string& url,
                                 long& redirects)
{
    if (!options.m_redirectPolicy || *options.m_redirectPolicy == SessionOptions::RedirectPolicy::Follow)
        return false;
    char* location = nullptr;
    Check(curl_easy_getinfo(handle, CURLINFO_REDIRECT_URL, &location));
    if (status < 300 || status > 399 || location == nullptr)
        return false;
    const std::string target(location);
    const long limit =
        options.m_maxRedirects && *options.m_maxRedirects >= 0 ? *options.m_maxRedirects : kRedirectsWithoutLimit;
    if (redirects >= limit)
        throw CurlNetworkException(CURLE_TOO_MANY_REDIRECTS);
    if (!RedirectAllowed(*options.m_redirectPolicy, url, target))
        throw CurlNetworkException(FailureKind::RedirectRefused, "Redirect refused: " + target);
    ++redirects;
    url = target;
    SetOpt(handle, CURLOPT_URL, url.c_str());
    SetOpt(handle, CURLOPT_PROXY, ""); // the new target's own proxy, if any, follows
    SetProxy(handle, url);
    return true;
}

void CurlNetwork::Send(RestRequest& request, RestReply& reply, CallContext& context)
{
    m_authenticationTried = false;
    EasyHandle easy(curl_easy_init());
    if (!easy)
        throw CurlNetworkException(CURLE_OUT_OF_MEMORY);
    CURL* handle = easy.get();
    const SessionOptions& options = context.Options();
    const bool ownRedirects =
        options.m_redirectPolicy && *options.m_redirectPolicy != SessionOptions::RedirectPolicy::Follow;

    std::string url = request.m_url;
    SetOpt(handle, CURLOPT_URL, url.c_str());
    const bool post = request.m_method == RestRequest::Post;
    if (post) {
        SetOpt(handle, CURLOPT_POST, 1L);
        SetOpt(handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.m_body.GetSize()));
        SetOpt(handle, CURLOPT_POSTREDIR, static_cast<long>(CURL_REDIR_POST_ALL));
    } else {
        SetOpt(handle, CURLOPT_HTTPGET, 1L);
    }
    SetOpt(handle, CURLOPT_FOLLOWLOCATION, ownRedirects ? 0L : 1L);
    SetProxy(handle, url);

    const CurlHeaderList headers = MakeHeaderList(request);
    SetOpt(handle, CURLOPT_HTTPHEADER, headers.get());
    CurlTransfer transfer(*this, request, reply, context);
    transfer.Apply(handle);
    transfer.Begin();

    long redirects = 0;
    bool rewind = false;
    for (;;) {
        transfer.Restart(rewind);
        const CURLcode code = curl_easy_perform(handle);
        if (code != CURLE_OK)
            transfer.Fail(handle, code);
        transfer.KeepStatus(handle);
        long responseCode = 0;
        Check(curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &responseCode));
        rewind = post;
        // Authenticate arms credentials once per Send: at most two transfers
        // per URL.
        if (HandleAuthentication(handle, responseCode))
            continue;
        if (!FollowRedirect(handle, options, responseCode, url, redirects))
            break;
    }
}

} // namespace OrvaneInternal
