// The settings a caller chose for a session, kept for every later call. A
// plain value: an empty field is a setting never made, and the transport
// applies only the fields that hold one, so a session whose settings were
// never touched sends exactly the bytes it always did. The setters of
// ServerConnection check every value before it lands here.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace OrvaneInternal {

struct SessionOptions {
    enum class RedirectPolicy { Follow, NoDowngrade, SameOrigin };
    // Called as the upload body is read for sending; non-zero stops the call.
    using ProgressCallback = int (*)(void* userData, uint64_t bytesSent, uint64_t bytesTotal);

    std::optional<long> m_connectTimeout;   // seconds to reach the server or proxy
    std::optional<long> m_stallTimeout;     // seconds without a byte moved either way
    std::optional<long> m_replyTimeout;     // seconds for the answer to a fully sent upload
    std::optional<long> m_totalTimeout;     // seconds for a whole call
    std::optional<long> m_maxRedirects;     // per request; negative: no limit
    std::optional<uint64_t> m_maxReplySize; // reply body bytes
    std::optional<std::string> m_caPath;    // UTF-8 CA bundle file or hashed directory
    std::optional<long> m_uploadBufferSize; // bytes libcurl reads the upload in
    std::optional<RedirectPolicy> m_redirectPolicy;
    ProgressCallback m_progress = nullptr;
    void* m_progressData = nullptr;
    bool m_cancelEnabled = false; // a cancel must stop the call also while the server is silent

    // True when a silent server must not keep a cancel, a progress report or
    // a time limit waiting: the transport then looks at the transfer at least
    // once a second.
    bool Watched() const
    {
        return m_cancelEnabled || m_progress != nullptr || m_connectTimeout || m_stallTimeout || m_replyTimeout ||
               m_totalTimeout;
    }
};

} // namespace OrvaneInternal
