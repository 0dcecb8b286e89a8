// libcurl's process-wide state. Neither call is thread-safe (libcurl's rule):
// they run only inside library start-up and shutdown.
#pragma once

namespace OrvaneInternal {

class CurlNetworkStatic {
  public:
    // curl_global_init(CURL_GLOBAL_ALL); throws CurlNetworkException on refusal.
    static void CurlInit();
    static void CurlCleanup();
};

} // namespace OrvaneInternal
