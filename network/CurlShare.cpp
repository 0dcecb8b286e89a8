#include "network/CurlShare.h"

#include "network/CurlNetworkException.h"

namespace OrvaneInternal {

void CurlShare::Attach(CURL* handle)
{
    if (m_share == nullptr) {
        CURLSH* share = curl_share_init();
        if (share == nullptr)
            throw CurlNetworkException(CURLE_OUT_OF_MEMORY);
        for (curl_lock_data data : {CURL_LOCK_DATA_CONNECT, CURL_LOCK_DATA_SSL_SESSION, CURL_LOCK_DATA_DNS}) {
            const CURLSHcode code = curl_share_setopt(share, CURLSHOPT_SHARE, data);
            if (code != CURLSHE_OK) {
                curl_share_cleanup(share);
                throw CurlNetworkException(FailureKind::Other, curl_share_strerror(code));
            }
        }
        m_share = share;
    }
    SetOpt(handle, CURLOPT_SHARE, m_share);
}

void CurlShare::Reset() noexcept
{
    if (m_share != nullptr)
        curl_share_cleanup(m_share);
    m_share = nullptr;
}

} // namespace OrvaneInternal
