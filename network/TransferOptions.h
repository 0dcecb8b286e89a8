// The per-handle transfer settings of the extension API, held by the session
// and shared with its transport. Each field has an "unset" value, and the
// transport applies only the fields that were set: a session whose settings
// were never touched sends exactly the bytes it always did. Written by the
// thread that uses the session; only `m_cancel` is touched from other threads.
#pragma once

#include "network/CurlNetworkException.h"

#include <atomic>
#include <cstdint>
#include <string>

namespace OrvaneInternal {

struct TransferOptions {
    using ProgressCallback = int (*)(void* userData, uint64_t bytesSent, uint64_t bytesTotal);

    long m_connectTimeout = 0;   // seconds for CURLOPT_CONNECTTIMEOUT; 0: unset
    long m_stallTimeout = 0;     // seconds without a byte moved either way; 0: unset
    long m_maxRedirects = -1;    // CURLOPT_MAXREDIRS; negative: unset
    uint64_t m_maxReplySize = 0; // reply body bytes; 0: unset
    std::string m_caPath;        // UTF-8 CA bundle file or hashed directory; empty: unset
    long m_uploadBufferSize = 0; // CURLOPT_UPLOAD_BUFFERSIZE; 0: unset
    ProgressCallback m_progress = nullptr;
    void* m_progressData = nullptr;
    bool m_cancelEnabled = false; // EnableCancel was called
    std::atomic<bool> m_cancel{false};

    // True when a silent server must not keep a cancel or a stall waiting:
    // the transport then watches the transfer at least once a second.
    bool Watched() const
    {
        return m_cancelEnabled || m_progress != nullptr || m_connectTimeout > 0 || m_stallTimeout > 0;
    }
};

// A transfer stopped by the extension settings, not by libcurl on its own:
// a cancel (FailureKind::Cancelled) or one of the time limits.
class TransferStopped : public CurlNetworkException {
  public:
    enum Reason { Cancelled, TimedOut };

    TransferStopped(FailureKind failure, const std::string& message, CURLcode code = CURLE_OK)
        : CurlNetworkException(failure, message, code)
    {
    }

    Reason GetReason() const { return Failure() == FailureKind::Cancelled ? Cancelled : TimedOut; }
};

} // namespace OrvaneInternal
