// The session layer's one error type. Thrown by value, caught by reference;
// deliberately not a std::exception, so only handlers that name it see it.
// The exported functions return getErrorCode() as their result code and put
// getMessage() into the caller's last-error store.
#pragma once

#include "network/FailureKind.h"

#include <cstdint>
#include <string>

namespace OrvaneInternal {

class ServerException {
  public:
    enum ErrorCode : int32_t {
        InvalidArgument = 1,       // a setting out of range (extension API); ORV_RESULT_InvalidArgument
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

    // The kind follows from the code where the code alone decides it (a reply
    // that does not parse, a cancel); elsewhere it is Other unless given.
    explicit ServerException(ErrorCode code) : ServerException(code, std::wstring()) {}
    ServerException(ErrorCode code, const std::wstring& message) : ServerException(code, message, DefaultFailure(code))
    {
    }
    ServerException(ErrorCode code, const std::wstring& message, FailureKind failure, long transportCode = 0)
        : m_errorCode(code), m_message(message), m_failure(failure), m_transportCode(transportCode)
    {
    }

    ErrorCode getErrorCode() const { return m_errorCode; }
    FailureKind getFailure() const { return m_failure; }
    // libcurl's code behind a transport failure; 0 for any other.
    long getTransportCode() const { return m_transportCode; }
    const std::wstring& getMessage() const { return m_message; }
    // The message in UTF-8, for callers that need narrow text.
    std::string getCharMessage() const;

  private:
    static FailureKind DefaultFailure(ErrorCode code)
    {
        switch (code) {
        case ResponseParseFailed:
        case UnexpectedResponse:
            return FailureKind::ReplyUnreadable;
        case Cancelled:
            return FailureKind::Cancelled;
        default:
            return FailureKind::Other;
        }
    }

    ErrorCode m_errorCode;
    std::wstring m_message;
    FailureKind m_failure;
    long m_transportCode;
};

} // namespace OrvaneInternal
