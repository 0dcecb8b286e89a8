#include "network/CurlNetworkStatic.h"

#include "network/CurlNetworkException.h"

#include <curl/curl.h>

namespace OrvaneInternal {

void CurlNetworkStatic::CurlInit()
{
    const CURLcode code = curl_global_init(CURL_GLOBAL_ALL);
    if (code != CURLE_OK)
        throw CurlNetworkException(code);
}

void CurlNetworkStatic::CurlCleanup()
{
    curl_global_cleanup();
}

}  // namespace OrvaneInternal
