// The session's side of the extension API: cancellation, upload progress and
// the bracket around each call.
#include "network/TransferOptions.h"
#include "rest/MultipartRequest.h"
#include "rest/RestRequest.h"
#include "server/ServerConnection.h"
#include "server/ServerException.h"

namespace OrvaneInternal {

namespace {

constexpr uint64_t kProgressStep = 64 * 1024;
const char kCancelled[] = "Cancelled";

bool CancelRequested(const TransferOptions& options)
{
    return options.m_cancel.load(std::memory_order_relaxed);
}

// Reports the upload on the body's read path: every kProgressStep bytes, at
// the end, and 0 again when the body is rewound for a resend. Throwing stops
// the transfer (the transport rethrows it once libcurl has unwound).
class ProgressReporter {
  public:
    ProgressReporter(const TransferOptions& options, uint64_t total) : m_options(&options), m_total(total) {}

    void operator()(uint64_t position)
    {
        if (CancelRequested(*m_options))
            throw TransferStopped(TransferStopped::Cancelled, kCancelled);
        if (position == m_last || (position > m_last && position - m_last < kProgressStep && position != m_total))
            return;
        m_last = position;
        if (!Report(position))
            throw TransferStopped(TransferStopped::Cancelled, kCancelled);
    }
    bool Report(uint64_t position) const
    {
        return m_options->m_progress(m_options->m_progressData, position, m_total) == 0;
    }

  private:
    const TransferOptions* m_options;
    uint64_t m_total;
    uint64_t m_last = 0;
};

} // namespace

ServerConnection::CallScope::CallScope(ServerConnection& session) : m_session(session)
{
    m_session.m_lastStatus = 0;
    m_session.m_lastReason.clear();
    if (m_session.m_options->m_cancel.exchange(false))
        throw ServerException(ServerException::Cancelled, L"Cancelled");
}

ServerConnection::CallScope::~CallScope()
{
    m_session.m_options->m_cancel.store(false);
}

void ServerConnection::CheckProject(const std::wstring& projectName)
{
    const CallScope call(*this);
    (void)FindProject(projectName);
}

void ServerConnection::Cancel()
{
    m_options->m_cancel.store(true);
}

void ServerConnection::WatchBody(RestRequest& request)
{
    const TransferOptions& options = *m_options;
    if (CancelRequested(options))
        throw ServerException(ServerException::Cancelled, L"Cancelled");
    if (options.m_progress == nullptr || dynamic_cast<MultipartRequest*>(&request) == nullptr) {
        request.m_body.SetObserver([&options](uint64_t) {
            if (CancelRequested(options))
                throw TransferStopped(TransferStopped::Cancelled, kCancelled);
        });
        return;
    }
    ProgressReporter reporter(options, request.m_body.GetSize());
    if (!reporter.Report(0))
        throw ServerException(ServerException::Cancelled, L"Cancelled");
    request.m_body.SetObserver(reporter);
}

} // namespace OrvaneInternal
