// One exported call as the transport sees it: the session's settings as they
// were when the call began, the cancel token, the progress sink and the
// call's deadline; and what the transport learned on the way (the status of
// the last exchange, how much of the upload went out), which the session
// reports once the call has ended. Made by the session at the start of each
// call and passed to every INetwork::Send of it; used by one thread, except
// the cancel token, which any thread may set.
#pragma once

#include "server/SessionOptions.h"

#include <atomic>
#include <chrono>
#include <cstdint>

namespace OrvaneInternal {

class CallContext {
  public:
    using Clock = std::chrono::steady_clock;

    CallContext(const SessionOptions& options, const std::atomic<bool>& cancel)
        : m_options(options), m_cancel(cancel), m_started(Clock::now())
    {
    }

    const SessionOptions& Options() const { return m_options; }
    bool CancelRequested() const { return m_cancel.load(std::memory_order_relaxed); }
    // When the total limit ends the call; nullopt without one.
    std::optional<Clock::time_point> Deadline() const
    {
        if (!m_options.m_totalTimeout)
            return std::nullopt;
        return m_started + std::chrono::seconds(*m_options.m_totalTimeout);
    }

    // The exchange at hand is the upload: its body's progress is reported,
    // and the server's work on it once sent is waited for under the reply
    // limit, not the stall limit.
    bool m_upload = false;
    // Filled by the transport.
    long m_status = 0;         // of the last exchange whose answer began; 0: none
    uint64_t m_uploadSent = 0; // of the upload body, as read for sending
    uint64_t m_uploadTotal = 0;

  private:
    SessionOptions m_options;
    const std::atomic<bool>& m_cancel;
    Clock::time_point m_started;
};

} // namespace OrvaneInternal
