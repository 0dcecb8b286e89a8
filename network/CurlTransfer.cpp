#include "network/CurlTransfer.h"

#include "logging/Logger.h"
#include "network/CurlNetwork.h"
#include "network/CurlNetworkException.h"
#include "rest/RestReply.h"
#include "rest/RestRequest.h"
#include "sys/Errors.h"

#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <sys/stat.h>

#include <string_view>

namespace OrvaneInternal {

namespace {

// The progress callback hears of the upload at most once per this many bytes
// read (and at the end); a read never takes more than the upload buffer, so
// with a larger buffer the reports come further apart.
constexpr uint64_t kProgressStep = 64 * 1024;

bool IsDirectory(const std::string& path)
{
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

} // namespace

CurlTransfer::CurlTransfer(CurlNetwork& network, RestRequest& request, RestReply& reply, CallContext& context)
    : m_network(network), m_request(request), m_reply(reply), m_context(context), m_options(context.Options()),
      m_lastMoved(Clock::now())
{
}

template <class R, class F> R CurlTransfer::Guarded(R onError, F&& body)
{
    try {
        return body();
    } catch (...) {
        RethrowForcedUnwind(); // through libcurl, which was built for it
        if (!m_error)
            m_error = std::current_exception();
        return onError;
    }
}

void CurlTransfer::Apply(CURL* handle)
{
    m_handle = handle;
    void* self = static_cast<void*>(this);
    if (m_request.m_method == RestRequest::Post) {
        SetOpt(handle, CURLOPT_READFUNCTION, &CurlTransfer::Read);
        SetOpt(handle, CURLOPT_READDATA, self);
        SetOpt(handle, CURLOPT_SEEKFUNCTION, &CurlTransfer::Seek);
        SetOpt(handle, CURLOPT_SEEKDATA, self);
    }
    SetOpt(handle, CURLOPT_WRITEFUNCTION, &CurlTransfer::Write);
    SetOpt(handle, CURLOPT_WRITEDATA, self);
    SetOpt(handle, CURLOPT_SSL_CTX_FUNCTION, &CurlTransfer::SslContext);
    SetOpt(handle, CURLOPT_SSL_CTX_DATA, self);

    const SessionOptions& options = m_options;
    if (options.m_connectTimeout)
        SetOpt(handle, CURLOPT_CONNECTTIMEOUT, *options.m_connectTimeout);
    if (options.m_maxRedirects)
        SetOpt(handle, CURLOPT_MAXREDIRS, *options.m_maxRedirects);
    if (options.m_caPath)
        SetOpt(handle, IsDirectory(*options.m_caPath) ? CURLOPT_CAPATH : CURLOPT_CAINFO, options.m_caPath->c_str());
    if (options.m_uploadBufferSize)
        SetOpt(handle, CURLOPT_UPLOAD_BUFFERSIZE, *options.m_uploadBufferSize);
    if (options.m_stallTimeout || options.m_replyTimeout) {
        // Header bytes count as movement, and end the wait for an answer.
        SetOpt(handle, CURLOPT_HEADERFUNCTION, &CurlTransfer::Header);
        SetOpt(handle, CURLOPT_HEADERDATA, self);
    }
    if (options.Watched()) {
        SetOpt(handle, CURLOPT_XFERINFOFUNCTION, &CurlTransfer::TransferInfo);
        SetOpt(handle, CURLOPT_XFERINFODATA, self);
        SetOpt(handle, CURLOPT_NOPROGRESS, 0L);
    }
}

void CurlTransfer::Begin()
{
    if (m_context.CancelRequested())
        throw TransferStopped(FailureKind::Cancelled, std::string());
    if (!m_context.m_upload)
        return;
    m_context.m_uploadTotal = m_request.m_body.GetSize();
    m_context.m_uploadSent = 0;
    m_lastReported = 0;
    if (!Report(0))
        throw TransferStopped(FailureKind::Cancelled, std::string());
}

void CurlTransfer::Restart(bool rewind)
{
    m_reply.Clear();
    m_received = 0;
    m_lastDownloaded = 0;
    m_lastUploaded = 0;
    m_answerBegan = false;
    m_bodySentAt.reset();
    m_lastMoved = Clock::now();
    if (!rewind)
        return;
    if (m_request.m_body.Seek(0) != 0)
        throw CurlNetworkException("CurlNetwork: Failed Rewind on URL: " + m_request.m_url);
    if (!BodyMoved())
        throw TransferStopped(FailureKind::Cancelled, std::string());
}

void CurlTransfer::KeepStatus(CURL* handle)
{
    long status = 0;
    // An interim "100 Continue" is no answer to report.
    if (curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status) != CURLE_OK || status < 200)
        status = 0;
    m_reply.SetStatus(status);
}

void CurlTransfer::Fail(CURL* handle, CURLcode code)
{
    KeepStatus(handle);
    if (m_error)
        std::rethrow_exception(m_error);
    const char* timedOut = curl_easy_strerror(CURLE_OPERATION_TIMEDOUT);
    switch (m_stop) {
    case FailureKind::Cancelled:
        throw TransferStopped(m_stop, std::string(), code);
    case FailureKind::StallTimeout:
    case FailureKind::ReplyTimeout:
    case FailureKind::TotalTimeout:
        throw TransferStopped(m_stop, timedOut, code);
    case FailureKind::ConnectionLost:
        throw CurlNetworkException(m_stop, "Connection lost after the whole upload was sent; it was not sent again",
                                   code);
    case FailureKind::ReplyTooLarge:
        throw CurlNetworkException(
            m_stop, "Server reply larger than the limit of " + std::to_string(*m_options.m_maxReplySize) + " bytes",
            code);
    default:
        break;
    }
    // libcurl's own connect time-out, without one set, stays an ordinary
    // transfer failure.
    if (code == CURLE_OPERATION_TIMEDOUT && m_options.m_connectTimeout)
        throw TransferStopped(FailureKind::ConnectTimeout, timedOut, code);
    // A proxy that refuses the tunnel shows only in the CONNECT's status.
    long connectStatus = 0;
    if (curl_easy_getinfo(handle, CURLINFO_HTTP_CONNECTCODE, &connectStatus) == CURLE_OK && connectStatus >= 300)
        throw CurlNetworkException(FailureKind::Proxy, curl_easy_strerror(code), code);
    throw CurlNetworkException(code);
}

bool CurlTransfer::LostAfterWholeUpload() const
{
    // libcurl resends a request whose reused connection died before any
    // answer; a redirect or an authentication answer rewinds with a status.
    // A whole upload may have landed: sending it again could store it twice.
    if (!m_context.m_upload || m_context.m_uploadTotal == 0 || m_context.m_uploadSent < m_context.m_uploadTotal)
        return false;
    long status = 0;
    return curl_easy_getinfo(m_handle, CURLINFO_RESPONSE_CODE, &status) == CURLE_OK && status == 0;
}

void CurlTransfer::Stop(FailureKind reason)
{
    if (m_stop == FailureKind::None)
        m_stop = reason;
}

bool CurlTransfer::Report(uint64_t position)
{
    if (m_options.m_progress == nullptr)
        return true;
    return m_options.m_progress(m_options.m_progressData, position, m_context.m_uploadTotal) == 0;
}

bool CurlTransfer::BodyMoved()
{
    if (!m_context.m_upload)
        return true;
    const uint64_t position = m_request.m_body.GetPosition();
    m_context.m_uploadSent = position;
    const uint64_t last = m_lastReported;
    const bool small = position > last && position - last < kProgressStep && position != m_context.m_uploadTotal;
    if (position == last || small)
        return true;
    m_lastReported = position;
    if (Report(position))
        return true;
    Stop(FailureKind::Cancelled);
    return false;
}

bool CurlTransfer::LimitReached(Clock::time_point now, bool bodySent)
{
    const std::optional<Clock::time_point> deadline = m_context.Deadline();
    if (deadline && now >= *deadline) {
        Stop(FailureKind::TotalTimeout);
        return true;
    }
    if (bodySent) {
        // The server works on the whole upload: a wait the stall limit must
        // not cut short; the reply limit bounds it.
        if (!m_bodySentAt)
            m_bodySentAt = now;
        if (m_options.m_replyTimeout && now - *m_bodySentAt >= std::chrono::seconds(*m_options.m_replyTimeout)) {
            Stop(FailureKind::ReplyTimeout);
            return true;
        }
        return false;
    }
    if (m_options.m_stallTimeout && now - m_lastMoved >= std::chrono::seconds(*m_options.m_stallTimeout)) {
        Stop(FailureKind::StallTimeout);
        return true;
    }
    return false;
}

size_t CurlTransfer::Read(char* buffer, size_t size, size_t nmemb, void* userdata)
{
    auto* transfer = static_cast<CurlTransfer*>(userdata);
    return transfer->Guarded(static_cast<size_t>(CURL_READFUNC_ABORT), [&]() -> size_t {
        if (transfer->m_context.CancelRequested()) {
            transfer->Stop(FailureKind::Cancelled);
            return CURL_READFUNC_ABORT;
        }
        const size_t read = transfer->m_request.m_body.Read(buffer, size * nmemb);
        if (!transfer->BodyMoved())
            return CURL_READFUNC_ABORT;
        return read;
    });
}

int CurlTransfer::Seek(void* userdata, curl_off_t offset, int origin)
{
    auto* transfer = static_cast<CurlTransfer*>(userdata);
    return transfer->Guarded(static_cast<int>(CURL_SEEKFUNC_FAIL), [&] {
        if (origin != SEEK_SET)
            throw CurlNetworkException(std::string("CurlNetwork error: Seek origin other than SEEK_SET."));
        if (transfer->LostAfterWholeUpload()) {
            transfer->Stop(FailureKind::ConnectionLost);
            return static_cast<int>(CURL_SEEKFUNC_FAIL);
        }
        const int result = transfer->m_request.m_body.Seek(static_cast<size_t>(offset));
        if (result == CURL_SEEKFUNC_OK && !transfer->BodyMoved())
            return static_cast<int>(CURL_SEEKFUNC_FAIL);
        return result;
    });
}

size_t CurlTransfer::Write(char* data, size_t size, size_t nmemb, void* userdata)
{
    auto* transfer = static_cast<CurlTransfer*>(userdata);
    const size_t bytes = size * nmemb;
    return transfer->Guarded(static_cast<size_t>(0), [&]() -> size_t {
        if (transfer->m_context.CancelRequested()) {
            transfer->Stop(FailureKind::Cancelled);
            return 0;
        }
        const std::optional<uint64_t>& limit = transfer->m_options.m_maxReplySize;
        if (limit && transfer->m_received + bytes > *limit) {
            transfer->Stop(FailureKind::ReplyTooLarge);
            return 0;
        }
        transfer->m_reply.Write(data, bytes);
        transfer->m_received += bytes;
        return bytes;
    });
}

size_t CurlTransfer::Header(char* data, size_t size, size_t nmemb, void* userdata)
{
    auto* transfer = static_cast<CurlTransfer*>(userdata);
    const std::string_view line(data, size * nmemb);
    // An interim "100 Continue" is movement, not yet the answer.
    const size_t space = line.find(' ');
    if (line.rfind("HTTP/", 0) == 0 && space != std::string_view::npos && space + 1 < line.size() &&
        line[space + 1] != '1')
        transfer->m_answerBegan = true;
    transfer->m_lastMoved = Clock::now();
    return size * nmemb;
}

int CurlTransfer::TransferInfo(void* userdata, curl_off_t, curl_off_t dlnow, curl_off_t ultotal, curl_off_t ulnow)
{
    auto* transfer = static_cast<CurlTransfer*>(userdata);
    return transfer->Guarded(1, [&] {
        if (transfer->m_context.CancelRequested()) {
            transfer->Stop(FailureKind::Cancelled);
            return 1;
        }
        const Clock::time_point now = Clock::now();
        if (dlnow != transfer->m_lastDownloaded || ulnow != transfer->m_lastUploaded) {
            transfer->m_lastDownloaded = dlnow;
            transfer->m_lastUploaded = ulnow;
            transfer->m_lastMoved = now;
        }
        const bool bodySent =
            transfer->m_context.m_upload && ultotal > 0 && ulnow >= ultotal && !transfer->m_answerBegan && dlnow == 0;
        return transfer->LimitReached(now, bodySent) ? 1 : 0;
    });
}

CURLcode CurlTransfer::SslContext(CURL*, void* sslContext, void* userdata)
{
    auto* transfer = static_cast<CurlTransfer*>(userdata);
    return transfer->Guarded(CURLE_ABORTED_BY_CALLBACK, [&] {
        // A copy: the cache may be refilled while a later handshake uses it.
        std::map<std::wstring, std::vector<Certificate>> stores = transfer->m_network.GetCACertficates();
        X509_STORE* store = SSL_CTX_get_cert_store(static_cast<SSL_CTX*>(sslContext));
        for (auto& entry : stores) {
            for (Certificate& certificate : entry.second) {
                if (X509_STORE_add_cert(store, certificate.AsX509()) == 0) {
                    Logger::Get()->QueueMessage(L"NetworkReply::sslCtxCallback: failed to add certificate " +
                                                certificate.GetSubjectInfo(Certificate::CommonName) + L" from store " +
                                                entry.first);
                }
            }
        }
        return CURLE_OK;
    });
}

} // namespace OrvaneInternal
