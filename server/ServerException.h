// The session layer's one error type. Thrown by value, caught by reference;
// deliberately not a std::exception, so only handlers that name it see it.
// The exported functions return getErrorCode() as their result code and put
// getMessage() into the caller's last-error store.
#pragma once

#include <cstdint>
#include <string>

namespace OrvaneInternal {

class ServerException {
  public:
    enum ErrorCode : int32_t {
        ResponseParseFailed = 300, // reply not well-formed XML (empty message)
        UnknownReplyType = 301,    // a request asked for reply type Unknown
        InvalidPublishInput = 303, // extract file unusable, or project not on the server
        NetworkFailure = 400,      // libcurl failed (global start, or a transfer)
        ServerResponseError = 401, // HTTP status outside 2xx, or an inconsistent page
        NotConnected = 402,        // operation needs a signed-in session
        UnexpectedResponse = 403,  // reply has elements the operation does not expect (empty message)
        NotInitialized = 404,      // session made before library start-up
        Cancelled = 500,           // the caller cancelled the call (extension API)
        TimedOut = 501,            // a time limit the caller set fired (extension API)
    };

    explicit ServerException(ErrorCode code) : m_errorCode(code) {}
    ServerException(ErrorCode code, const std::wstring& message) : m_errorCode(code), m_message(message) {}

    ErrorCode getErrorCode() const { return m_errorCode; }
    const std::wstring& getMessage() const { return m_message; }
    // The message in UTF-8, for callers that need narrow text.
    std::string getCharMessage() const;

  private:
    ErrorCode m_errorCode;
    std::wstring m_message;
};

} // namespace OrvaneInternal
