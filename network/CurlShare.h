// One kept-alive connection per session: a libcurl share handle holding the
// connection cache, TLS sessions and DNS answers for every easy handle the
// session's requests use. libcurl checks a cached connection before reusing
// it, replaces one the server has closed, and repeats a request once on a
// fresh connection when a reused one died before any byte of the answer came
// (rewinding an upload through the body's seek callback). Not locked: one
// thread uses a session at a time, so no lock callbacks are needed.
#pragma once

#include <curl/curl.h>

namespace OrvaneInternal {

class CurlShare {
  public:
    CurlShare() = default;
    ~CurlShare() { Reset(); }
    CurlShare(const CurlShare&) = delete;
    CurlShare& operator=(const CurlShare&) = delete;

    // Makes `handle` use the shared cache, creating it on first use. The easy
    // handle must be cleaned up before Reset or the destructor.
    void Attach(CURL* handle);
    // Closes the kept connections and forgets the TLS sessions.
    void Reset() noexcept;

  private:
    CURLSH* m_share = nullptr;
};

} // namespace OrvaneInternal
