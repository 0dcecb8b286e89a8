#include "network/CurlNetworkException.h"

namespace OrvaneInternal {

// libcurl code                                  -> kind
// OK                                            -> None
// COULDNT_RESOLVE_HOST, COULDNT_RESOLVE_PROXY   -> Resolve
// COULDNT_CONNECT                               -> Connect
// SSL_*, PEER_FAILED_VERIFICATION, USE_SSL_FAILED -> Tls
// PROXY                                         -> Proxy
// RECV_ERROR, SEND_ERROR, GOT_NOTHING,
//   PARTIAL_FILE, HTTP2, HTTP2_STREAM, HTTP3    -> ConnectionLost
// TOO_MANY_REDIRECTS                            -> TooManyRedirects
// FILESIZE_EXCEEDED                             -> ReplyTooLarge
// OPERATION_TIMEDOUT                            -> ConnectTimeout (the one timer libcurl arms by itself)
// WEIRD_SERVER_REPLY, BAD_CONTENT_ENCODING      -> ReplyUnreadable
// anything else                                 -> Other
FailureKind FailureOfCurlCode(CURLcode code)
{
    switch (code) {
    case CURLE_OK:
        return FailureKind::None;
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
        return FailureKind::Resolve;
    case CURLE_COULDNT_CONNECT:
        return FailureKind::Connect;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_ENGINE_NOTFOUND:
    case CURLE_SSL_ENGINE_SETFAILED:
    case CURLE_SSL_ENGINE_INITFAILED:
    case CURLE_SSL_SHUTDOWN_FAILED:
    case CURLE_SSL_CRL_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_INVALIDCERTSTATUS:
    case CURLE_SSL_CLIENTCERT:
    case CURLE_USE_SSL_FAILED:
        return FailureKind::Tls;
    case CURLE_PROXY:
        return FailureKind::Proxy;
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
    case CURLE_GOT_NOTHING:
    case CURLE_PARTIAL_FILE:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
    case CURLE_HTTP3:
        return FailureKind::ConnectionLost;
    case CURLE_TOO_MANY_REDIRECTS:
        return FailureKind::TooManyRedirects;
    case CURLE_FILESIZE_EXCEEDED:
        return FailureKind::ReplyTooLarge;
    case CURLE_OPERATION_TIMEDOUT:
        return FailureKind::ConnectTimeout;
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_BAD_CONTENT_ENCODING:
        return FailureKind::ReplyUnreadable;
    default:
        return FailureKind::Other;
    }
}

} // namespace OrvaneInternal
