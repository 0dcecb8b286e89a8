// The libcurl transport. Each Send performs one exchange on a fresh easy
// handle: the body streams from the request's RestIO with its size announced
// (Content-Length, never chunked), redirects are followed (a POST stays a
// POST) unless the call's redirect policy says otherwise, the system proxy is
// chosen per request, the certificates of the platform stores are offered to
// every TLS handshake, and one 401 is answered with the stored credentials.
// Status and body go into the reply; an HTTP error status is not a failure
// here. The call's settings and limits are applied by CurlTransfer. Not
// locked: one thread at a time.
#pragma once

#include "network/Certificate.h"
#include "network/CurlNetworkProxy.h"
#include "network/INetwork.h"

#include <curl/curl.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace OrvaneInternal {

struct SessionOptions;

class CurlNetwork : public INetwork {
  public:
    CurlNetwork() = default;
    ~CurlNetwork() override = default;

    void SetProxyCredentials(const std::string& user, const std::string& password) override;
    void Send(RestRequest& request, RestReply& reply, CallContext& context) override;

    // The one credentials source, for the proxy and the server alike; host,
    // port and type are where a per-host source would plug in.
    void Auth(const std::string& host, unsigned short port, CurlNetworkProxy::ProtocolType type, std::string& user,
              std::string& password);
    // True when the transfer is to be repeated with credentials (401 only).
    bool HandleAuthentication(CURL* handle, long responseCode);
    bool Authenticate(CURL* handle);

    // The certificate cache, filled from the platform stores on first use.
    std::map<std::wstring, std::vector<Certificate>>& GetCACertficates();

  private:
    void SetProxy(CURL* handle, const std::string& url);
    // With a redirect policy of the call's own, redirects are followed here,
    // one at a time, each target checked first; true when the transfer is to
    // be repeated at the new URL in `url`.
    bool FollowRedirect(CURL* handle, const SessionOptions& options, long status, std::string& url, long& redirects);

    std::map<std::wstring, std::vector<Certificate>> m_caCertificates;
    bool m_authenticationTried = false;
    std::string m_proxyUser;
    std::string m_proxyPassword;
    bool m_proxyCredentialsSet = false;
};

struct CurlHeaderListDeleter {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using CurlHeaderList = std::unique_ptr<curl_slist, CurlHeaderListDeleter>;

// The request's header lines, in order: "Content-Type: " and "X-Orvane-Auth: "
// with their values, also when empty.
CurlHeaderList MakeHeaderList(const RestRequest& request);

} // namespace OrvaneInternal
