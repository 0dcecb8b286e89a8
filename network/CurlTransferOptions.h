// How CurlNetwork applies a session's TransferOptions to one Send: only the
// settings that were set become libcurl options. With a reply size limit or a
// watched session, the reply passes through a write callback that honours the
// limit and a cancel; a watched session adds a transfer-info callback, called
// by libcurl at least once a second, that notices a cancel or a stall while
// the server is silent. An untouched session keeps the plain callbacks.
#pragma once

#include "network/TransferOptions.h"

#include <curl/curl.h>

#include <chrono>
#include <cstdint>
#include <exception>

namespace OrvaneInternal {

class BufferReply;
class RestReply;

// The state of one Send; userdata of the callbacks below.
class TransferWatch {
  public:
    enum Stop { None, Cancelled, TimedOut, ReplyTooLarge };

    TransferWatch(const TransferOptions* options, RestReply& reply);

    // Sets the options that were set (none without options).
    void Apply(CURL* handle);
    // After a failed transfer: throws what this watch stopped it for, or
    // TransferStopped(TimedOut) for the connect time-out set; else returns.
    void ThrowIfStopped(CURLcode code) const;

    static size_t Write(char* data, size_t size, size_t nmemb, void* userdata);
    static int TransferInfo(void* userdata, curl_off_t dltotal, curl_off_t dlnow, curl_off_t ultotal, curl_off_t ulnow);

  private:
    const TransferOptions* m_options;
    RestReply* m_reply;
    BufferReply* m_buffer;  // m_reply when it is one: its size survives the transport's Clear()
    uint64_t m_written = 0; // for other replies
    Stop m_stop = None;
    std::exception_ptr m_error; // what the reply's Write threw
    curl_off_t m_lastDownloaded = 0;
    curl_off_t m_lastUploaded = 0;
    std::chrono::steady_clock::time_point m_lastMoved;
};

} // namespace OrvaneInternal
