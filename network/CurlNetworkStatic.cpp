#include "network/CurlNetworkStatic.h"

#include "network/CurlNetworkException.h"

#include <curl/curl.h>

namespace OrvaneInternal {

void CurlNetworkStatic::CurlInit()
{
    Check(curl_global_init(CURL_GLOBAL_ALL));
}

void CurlNetworkStatic::CurlCleanup()
{
    curl_global_cleanup();
}

} // namespace OrvaneInternal
