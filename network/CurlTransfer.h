// The state of one CurlNetwork::Send, and the userdata of every libcurl
// callback it sets: the body's read and seek, the reply's write, the header
// lines, the transfer-info call and the TLS context. The reply limit, the
// cancel, the time limits and the upload's progress live here and nowhere
// else. A callback never lets an exception into libcurl: it records why the
// transfer must stop (or parks the exception it caught) and makes libcurl
// abort, and Fail turns that into the one exception Send throws.
#pragma once

#include "network/CallContext.h"
#include "network/FailureKind.h"

#include <curl/curl.h>

#include <chrono>
#include <cstdint>
#include <exception>
#include <optional>
#include <string>

namespace OrvaneInternal {

class CurlNetwork;
class RestReply;
class RestRequest;

class CurlTransfer {
  public:
    CurlTransfer(CurlNetwork& network, RestRequest& request, RestReply& reply, CallContext& context);

    // Sets the callbacks, and the options only for the settings that were
    // made: an untouched session gets the options it always got.
    void Apply(CURL* handle);
    // Before the first perform: stops for a cancel, and reports an upload's
    // progress from 0 (the callback may refuse it).
    void Begin();
    // Before each perform: the reply emptied, the watch restarted, the body
    // rewound for a resend.
    void Restart(bool rewind);
    // After a perform, also a failed one: the final status that arrived (0
    // for none) goes to the reply.
    void KeepStatus(CURL* handle);
    // After a failed perform: throws what stopped it.
    [[noreturn]] void Fail(CURL* handle, CURLcode code);

  private:
    using Clock = CallContext::Clock;

    static size_t Read(char* buffer, size_t size, size_t nmemb, void* userdata);
    static int Seek(void* userdata, curl_off_t offset, int origin);
    static size_t Write(char* data, size_t size, size_t nmemb, void* userdata);
    static size_t Header(char* data, size_t size, size_t nmemb, void* userdata);
    static int TransferInfo(void* userdata, curl_off_t dltotal, curl_off_t dlnow, curl_off_t ultotal, curl_off_t ulnow);
    static CURLcode SslContext(CURL* handle, void* sslContext, void* userdata);

    // Runs a callback's body; an exception is parked and `onError` returned.
    template <class R, class F> R Guarded(R onError, F&& body);
    // Records the first reason to stop; libcurl is then made to abort.
    void Stop(FailureKind reason);
    // True when libcurl would resend a whole upload that got no answer.
    bool LostAfterWholeUpload() const;
    // The body's read position changed: kept for the session, reported to
    // the progress callback (a refusal stops the transfer).
    bool BodyMoved();
    bool Report(uint64_t position);
    // The stall, reply and total limits at `now`; true when one has fired.
    bool LimitReached(Clock::time_point now, bool bodySent);

    CurlNetwork& m_network;
    CURL* m_handle = nullptr;
    RestRequest& m_request;
    RestReply& m_reply;
    CallContext& m_context;
    const SessionOptions& m_options;
    std::exception_ptr m_error; // the one parked exception
    FailureKind m_stop = FailureKind::None;
    uint64_t m_received = 0;     // reply body bytes of this perform
    uint64_t m_lastReported = 0; // the progress callback's last position
    curl_off_t m_lastDownloaded = 0;
    curl_off_t m_lastUploaded = 0;
    bool m_answerBegan = false;
    Clock::time_point m_lastMoved;
    std::optional<Clock::time_point> m_bodySentAt;
};

} // namespace OrvaneInternal
