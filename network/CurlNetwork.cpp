#include "network/CurlNetwork.h"

#include "logging/Logger.h"
#include "network/CurlNetworkException.h"
#include "network/CurlTransferOptions.h"
#include "rest/BufferReply.h"
#include "rest/RestRequest.h"

#include <QtCore/QList>
#include <QtCore/QString>
#include <QtCore/QUrl>
#include <QtNetwork/QNetworkProxy>
#include <QtNetwork/QNetworkProxyFactory>
#include <QtNetwork/QNetworkProxyQuery>

#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <exception>
#include <memory>

namespace OrvaneInternal {

namespace {

// The exception a callback caught, waiting for Send to rethrow it on the same
// thread once libcurl has unwound.
thread_local std::exception_ptr t_callbackError;

template <class F, class R> R Guarded(R onError, F&& body)
{
    try {
        return body();
    } catch (...) {
        if (!t_callbackError)
            t_callbackError = std::current_exception();
        return onError;
    }
}

struct EasyDeleter {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
using EasyHandle = std::unique_ptr<CURL, EasyDeleter>;

void AppendHeader(CurlHeaderList& headers, const std::string& line)
{
    curl_slist* grown = curl_slist_append(headers.get(), line.c_str());
    if (grown == nullptr)
        throw CurlNetworkException(CURLE_OUT_OF_MEMORY);
    headers.release();
    headers.reset(grown);
}

// Rethrows what a callback parked, or libcurl's own error.
[[noreturn]] void ThrowTransferError(CURLcode code)
{
    if (t_callbackError) {
        std::exception_ptr error = t_callbackError;
        t_callbackError = nullptr;
        std::rethrow_exception(error);
    }
    throw CurlNetworkException(code);
}

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

size_t ReadFunction(char* buffer, size_t size, size_t nmemb, void* userdata)
{
    return Guarded<>(static_cast<size_t>(CURL_READFUNC_ABORT),
                     [&] { return static_cast<RestRequest*>(userdata)->m_body.Read(buffer, size * nmemb); });
}

int SeekFunction(void* userdata, curl_off_t offset, int origin)
{
    return Guarded<>(static_cast<int>(CURL_SEEKFUNC_FAIL), [&] {
        if (origin != SEEK_SET)
            throw CurlNetworkException(std::string("CurlNetwork error: Seek origin other than SEEK_SET."));
        return static_cast<RestRequest*>(userdata)->m_body.Seek(static_cast<size_t>(offset));
    });
}

size_t WriteFunction(char* data, size_t size, size_t nmemb, void* userdata)
{
    const size_t bytes = size * nmemb;
    return Guarded<>(static_cast<size_t>(0), [&] {
        static_cast<RestReply*>(userdata)->Write(data, bytes);
        return bytes;
    });
}

CURLcode SslCtxCallback(CURL*, void* sslContext, void* userdata)
{
    return Guarded<>(CURLE_ABORTED_BY_CALLBACK, [&] {
        auto* network = static_cast<CurlNetwork*>(userdata);
        // A copy: the cache may be refilled while a later handshake uses it.
        std::map<std::wstring, std::vector<Certificate>> stores = network->GetCACertficates();
        X509_STORE* store = SSL_CTX_get_cert_store(static_cast<SSL_CTX*>(sslContext));
        for (auto& entry : stores) {
            for (Certificate& certificate : entry.second) {
                if (X509_STORE_add_cert(store, certificate.AsX509()) == 0) {
                    Logger::Get()->QueueMessage(L"NetworkReply::sslCtxCallback: failed to add certificate " +
                                                certificate.GetSubjectInfo(Certificate::CommonName) + L" from store " +
                                                entry.first);
                }
            }
        }
        return CURLE_OK;
    });
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

void CurlNetwork::Send(RestRequest& request, RestReply& reply)
{
    m_authenticationTried = false;
    t_callbackError = nullptr;
    EasyHandle easy(curl_easy_init());
    if (!easy)
        throw CurlNetworkException(CURLE_OUT_OF_MEMORY);
    CURL* handle = easy.get();

    SetOpt(handle, CURLOPT_URL, request.m_url.c_str());
    const bool post = request.m_method == RestRequest::Post;
    if (post) {
        SetOpt(handle, CURLOPT_POST, 1L);
        SetOpt(handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.m_body.GetSize()));
        SetOpt(handle, CURLOPT_READFUNCTION, &ReadFunction);
        SetOpt(handle, CURLOPT_READDATA, static_cast<void*>(&request));
        SetOpt(handle, CURLOPT_SEEKFUNCTION, &SeekFunction);
        SetOpt(handle, CURLOPT_SEEKDATA, static_cast<void*>(&request));
        SetOpt(handle, CURLOPT_POSTREDIR, static_cast<long>(CURL_REDIR_POST_ALL));
    } else {
        SetOpt(handle, CURLOPT_HTTPGET, 1L);
    }
    SetOpt(handle, CURLOPT_WRITEFUNCTION, &WriteFunction);
    SetOpt(handle, CURLOPT_WRITEDATA, static_cast<void*>(&reply));
    SetOpt(handle, CURLOPT_SSL_CTX_FUNCTION, &SslCtxCallback);
    SetOpt(handle, CURLOPT_SSL_CTX_DATA, static_cast<void*>(this));
    SetOpt(handle, CURLOPT_FOLLOWLOCATION, 1L);
    SetProxy(handle, request.m_url);

    const CurlHeaderList headers = MakeHeaderList(request);
    SetOpt(handle, CURLOPT_HTTPHEADER, headers.get());
    TransferWatch watch(m_options.get(), reply);
    watch.Apply(handle);

    long responseCode = 0;
    bool rewind = false;
    for (;;) {
        reply.Clear();
        if (rewind && request.m_body.Seek(0) != 0)
            throw CurlNetworkException("CurlNetwork: Failed Rewind on URL: " + request.m_url);
        const CURLcode code = curl_easy_perform(handle);
        if (code != CURLE_OK) {
            watch.ThrowIfStopped(code);
            // A proxy that refuses the tunnel shows only in the CONNECT's status.
            long connectCode = 0;
            if (!t_callbackError && curl_easy_getinfo(handle, CURLINFO_HTTP_CONNECTCODE, &connectCode) == CURLE_OK &&
                connectCode >= 300)
                throw CurlNetworkException(FailureKind::Proxy, curl_easy_strerror(code), code);
            ThrowTransferError(code);
        }
        Check(curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &responseCode));
        rewind = post;
        // Authenticate arms credentials once per Send: at most two transfers.
        if (!HandleAuthentication(handle, responseCode))
            break;
    }
    // BufferReply is the one reply kind that carries a status.
    if (auto* buffer = dynamic_cast<BufferReply*>(&reply))
        buffer->m_status = responseCode;
}

} // namespace OrvaneInternal
