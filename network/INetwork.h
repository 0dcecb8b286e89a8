// The transport a session performs its HTTP exchanges through. An HTTP error
// status is data in the reply, never a failure: Send throws only when the
// exchange itself fails (CurlNetworkException).
#pragma once

#include <memory>
#include <string>

namespace OrvaneInternal {

class RestRequest;
class RestReply;
struct TransferOptions;

class INetwork {
  public:
    virtual ~INetwork() = default;
    // UTF-8 credentials used for the proxy and for one answer to a server's 401.
    virtual void SetProxyCredentials(const std::string& user, const std::string& password) = 0;
    // Performs `request`, filling `reply` with the body and the status.
    virtual void Send(RestRequest& request, RestReply& reply) = 0;
    // The session's extension settings, kept for every later Send; a
    // transport that has none of them to apply may ignore them.
    virtual void SetTransferOptions(const std::shared_ptr<TransferOptions>&) {}
    // Closes the connections kept alive for later requests, if any; never throws.
    virtual void CloseConnections() noexcept {}
};

} // namespace OrvaneInternal
