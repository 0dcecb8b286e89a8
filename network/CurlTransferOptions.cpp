#include "network/CurlTransferOptions.h"

#include "rest/BufferReply.h"

#include <sys/stat.h>

namespace OrvaneInternal {

namespace {

bool IsDirectory(const std::string& path)
{
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

} // namespace

TransferWatch::TransferWatch(const TransferOptions* options, RestReply& reply)
    : m_options(options), m_reply(&reply), m_buffer(dynamic_cast<BufferReply*>(&reply)),
      m_lastMoved(std::chrono::steady_clock::now())
{
}

void TransferWatch::Apply(CURL* handle)
{
    if (m_options == nullptr)
        return;
    const TransferOptions& options = *m_options;
    if (options.m_maxReplySize != 0 || options.Watched()) {
        SetOpt(handle, CURLOPT_WRITEFUNCTION, &TransferWatch::Write);
        SetOpt(handle, CURLOPT_WRITEDATA, static_cast<void*>(this));
    }
    if (options.m_connectTimeout > 0)
        SetOpt(handle, CURLOPT_CONNECTTIMEOUT, options.m_connectTimeout);
    if (options.m_maxRedirects >= 0)
        SetOpt(handle, CURLOPT_MAXREDIRS, options.m_maxRedirects);
    if (!options.m_caPath.empty())
        SetOpt(handle, IsDirectory(options.m_caPath) ? CURLOPT_CAPATH : CURLOPT_CAINFO, options.m_caPath.c_str());
    if (options.m_uploadBufferSize > 0)
        SetOpt(handle, CURLOPT_UPLOAD_BUFFERSIZE, options.m_uploadBufferSize);
    if (options.Watched()) {
        SetOpt(handle, CURLOPT_XFERINFOFUNCTION, &TransferWatch::TransferInfo);
        SetOpt(handle, CURLOPT_XFERINFODATA, static_cast<void*>(this));
        SetOpt(handle, CURLOPT_NOPROGRESS, 0L);
    }
}

void TransferWatch::ThrowIfStopped(CURLcode code) const
{
    if (m_error)
        std::rethrow_exception(m_error);
    switch (m_stop) {
    case Cancelled:
        throw TransferStopped(FailureKind::Cancelled, "Cancelled", code);
    case TimedOut:
        throw TransferStopped(FailureKind::StallTimeout, curl_easy_strerror(CURLE_OPERATION_TIMEDOUT), code);
    case ReplyTooLarge:
        throw CurlNetworkException(
            FailureKind::ReplyTooLarge,
            "Server reply larger than the limit of " + std::to_string(m_options->m_maxReplySize) + " bytes", code);
    case None:
        break;
    }
    // Without a connect time-out of the session's own, libcurl's built-in one
    // stays an ordinary transfer failure.
    if (code == CURLE_OPERATION_TIMEDOUT && m_options != nullptr && m_options->m_connectTimeout > 0)
        throw TransferStopped(FailureKind::ConnectTimeout, curl_easy_strerror(code), code);
}

size_t TransferWatch::Write(char* data, size_t size, size_t nmemb, void* userdata)
{
    auto* watch = static_cast<TransferWatch*>(userdata);
    const size_t bytes = size * nmemb;
    if (watch->m_options->m_cancel.load(std::memory_order_relaxed)) {
        watch->m_stop = Cancelled;
        return 0;
    }
    const uint64_t limit = watch->m_options->m_maxReplySize;
    const uint64_t held = watch->m_buffer != nullptr ? watch->m_buffer->m_data.size() : watch->m_written;
    if (limit != 0 && held + bytes > limit) {
        watch->m_stop = ReplyTooLarge;
        return 0;
    }
    try {
        watch->m_reply->Write(data, bytes);
    } catch (...) { // nothing unwinds through libcurl
        watch->m_error = std::current_exception();
        return 0;
    }
    watch->m_written += bytes;
    return bytes;
}

int TransferWatch::TransferInfo(void* userdata, curl_off_t, curl_off_t dlnow, curl_off_t, curl_off_t ulnow)
{
    auto* watch = static_cast<TransferWatch*>(userdata);
    if (watch->m_options->m_cancel.load(std::memory_order_relaxed)) {
        watch->m_stop = Cancelled;
        return 1;
    }
    const long stall = watch->m_options->m_stallTimeout;
    if (stall <= 0)
        return 0;
    const auto now = std::chrono::steady_clock::now();
    if (dlnow != watch->m_lastDownloaded || ulnow != watch->m_lastUploaded) {
        watch->m_lastDownloaded = dlnow;
        watch->m_lastUploaded = ulnow;
        watch->m_lastMoved = now;
    } else if (now - watch->m_lastMoved >= std::chrono::seconds(stall)) {
        watch->m_stop = TimedOut;
        return 1;
    }
    return 0;
}

} // namespace OrvaneInternal
