// The transport a session performs its HTTP exchanges through. An HTTP error
// status is data in the reply, never a failure: Send throws only when the
// exchange itself fails (CurlNetworkException, or TransferStopped when the
// call's settings stopped it).
#pragma once

#include <string>

namespace OrvaneInternal {

class CallContext;
class RestRequest;
class RestReply;

class INetwork {
  public:
    virtual ~INetwork() = default;
    // UTF-8 credentials used for the proxy and for one answer to a server's 401.
    virtual void SetProxyCredentials(const std::string& user, const std::string& password) = 0;
    // Performs `request` under the call's settings, limits and cancel token,
    // filling `reply` with the body and the status.
    virtual void Send(RestRequest& request, RestReply& reply, CallContext& context) = 0;
};

} // namespace OrvaneInternal
