// The transport's one exception type: libcurl's own text for a libcurl
// failure, or a message of the transport.
#pragma once

#include <curl/curl.h>

#include <exception>
#include <string>

namespace OrvaneInternal {

class CurlNetworkException : public std::exception {
  public:
    explicit CurlNetworkException(CURLcode code) : m_message(curl_easy_strerror(code)) {}
    explicit CurlNetworkException(CURLSHcode code) : m_message(curl_share_strerror(code)) {}
    explicit CurlNetworkException(const std::string& message) : m_message(message) {}

    const char* what() const noexcept override { return m_message.c_str(); }

  private:
    std::string m_message;
};

// Every libcurl call's code goes through here: a failure becomes the
// exception at once.
inline void Check(CURLcode code)
{
    if (code != CURLE_OK)
        throw CurlNetworkException(code);
}

template <class T> void SetOpt(CURL* handle, CURLoption option, T value)
{
    Check(curl_easy_setopt(handle, option, value));
}

} // namespace OrvaneInternal
