// The transport's exceptions: libcurl's own text for a libcurl failure, or a
// message of the transport, with the failure kind it stands for and libcurl's
// code (CURLE_OK when libcurl did not report one).
#pragma once

#include "network/FailureKind.h"

#include <curl/curl.h>

#include <exception>
#include <string>

namespace OrvaneInternal {

// The one mapping from libcurl's codes to failure kinds.
FailureKind FailureOfCurlCode(CURLcode code);

class CurlNetworkException : public std::exception {
  public:
    explicit CurlNetworkException(CURLcode code)
        : m_message(curl_easy_strerror(code)), m_code(code), m_failure(FailureOfCurlCode(code))
    {
    }
    explicit CurlNetworkException(const std::string& message) : m_message(message) {}
    CurlNetworkException(FailureKind failure, const std::string& message, CURLcode code = CURLE_OK)
        : m_message(message), m_code(code), m_failure(failure)
    {
    }

    const char* what() const noexcept override { return m_message.c_str(); }
    CURLcode Code() const { return m_code; }
    FailureKind Failure() const { return m_failure; }

  private:
    std::string m_message;
    CURLcode m_code = CURLE_OK;
    FailureKind m_failure = FailureKind::Other;
};

// A transfer stopped by the call's own settings rather than by the network:
// a cancel (FailureKind::Cancelled, no text of its own) or one of the time
// limits (ConnectTimeout, StallTimeout, ReplyTimeout, TotalTimeout).
class TransferStopped : public CurlNetworkException {
  public:
    using CurlNetworkException::CurlNetworkException;
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
