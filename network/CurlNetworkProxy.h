// What a credentials lookup (CurlNetwork::Auth) is for. The values mirror
// QNetworkProxy::ProxyType, because a proxy's own type is passed through
// unchanged; server authentication passes NoProxy (2): no proxy is involved.
#pragma once

namespace OrvaneInternal {

class CurlNetworkProxy {
  public:
    enum ProtocolType : int {
        DefaultProxy = 0,
        Socks5Proxy = 1,
        NoProxy = 2,
        HttpProxy = 3,
        HttpCachingProxy = 4,
        FtpCachingProxy = 5,
    };
};

} // namespace OrvaneInternal
