// The session with one server: one object per exported handle. It owns its
// transport for its whole life and remembers where it signed in, with which
// token and site, the settings its calls run under, and the outcome of its
// last call. Not locked: one thread uses a session at a time, except Cancel,
// which any thread may call while another is inside a call.
#pragma once

#include "network/FailureKind.h"
#include "server/SessionOptions.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>

namespace OrvaneInternal {

class CallContext;
class INetwork;
class ReqMsg;

class ServerConnection {
  public:
    // What a request asks of the server, for reading a refusal.
    enum class Exchange { SignIn, Lookup, Upload, Overwrite };

    // Throws ServerException 404 before library start-up (the transport is made
    // first, and released again).
    ServerConnection();
    // Disconnects a connected session; never throws.
    ~ServerConnection();
    ServerConnection(const ServerConnection&) = delete;
    ServerConnection& operator=(const ServerConnection&) = delete;

    void SetProxyCredentials(const std::wstring& user, const std::wstring& password);
    void Connect(const std::wstring& host, const std::wstring& username, const std::wstring& password,
                 const std::wstring& siteId);
    // Forgets the sign-in on the client side; nothing is sent to the server.
    void Disconnect();
    void PublishExtract(const std::wstring& path, const std::wstring& projectName, const std::wstring& datasourceName,
                        bool overwrite);

    // The id of the signed-in site's project of that name, read page by page
    // up to the page that names it; ServerException 303 when no page does.
    std::wstring FindProject(const std::wstring& projectName);
    // FindProject as a call of its own (the extension's dry run).
    void CheckProject(const std::wstring& projectName);
    // One page of the site's projects (100 a page) as name -> id; true when it
    // was the last page.
    bool QueryProjects(unsigned long pageNumber, std::unordered_map<std::wstring, std::wstring>& projects);
    void PublishExtractInternal(const std::wstring& path, const std::wstring& projectId,
                                const std::wstring& datasourceName, bool overwrite);
    // Performs one request within the running call; returns the body of a
    // 2xx reply.
    std::string Send(const ReqMsg& message, Exchange exchange);

    // libcurl's global state, owned by library start-up and shutdown.
    static void Init();
    static void Cleanup();
    static bool s_initialized;

    // The settings of later calls. Each setter checks its value and throws
    // ServerException InvalidArgument for one out of range; 0 (or null)
    // takes the setting back.
    const SessionOptions& Options() const { return m_options; }
    void SetConnectTimeout(long seconds);
    void SetStallTimeout(long seconds);
    void SetReplyTimeout(long seconds);
    void SetTotalTimeout(long seconds);
    void SetMaxRedirects(long count); // negative: no limit
    void SetMaxReplySize(uint64_t bytes);
    void SetCACertificates(const std::string& utf8Path);
    void SetUploadBufferSize(long bytes);
    void SetRedirectPolicy(int policy);
    void SetProgressCallback(SessionOptions::ProgressCallback callback, void* userData);
    void EnableCancel() { m_options.m_cancelEnabled = true; }

    // Safe from any thread while another is inside a call on the session.
    void Cancel() { m_cancel.store(true); }
    // Of the last call: the status of the exchange it ended on (0: none), the
    // server's explanation when it refused ("" otherwise), what kind of
    // failure ended it (None after a success) and libcurl's code for it (0
    // when libcurl reported none), and how much of its upload libcurl took
    // for sending, of how much (both 0 without an upload).
    int64_t GetLastStatus() const { return m_lastStatus; }
    const std::wstring& GetLastReason() const { return m_lastReason; }
    FailureKind GetLastFailure() const { return m_lastFailure; }
    long GetLastTransportCode() const { return m_lastTransportCode; }
    uint64_t GetUploadSent() const { return m_uploadSent; }
    uint64_t GetUploadTotal() const { return m_uploadTotal; }

    bool IsConnected() const { return m_connected; }
    const std::wstring& GetHost() const { return m_host; }
    const std::wstring& GetToken() const { return m_token; }
    const std::wstring& GetSiteId() const { return m_siteId; }

  private:
    // Runs one exported call: forgets the last call's outcome, builds the
    // call's context, stops at once for a cancel made before the call,
    // records the outcome, and drops a cancel that came too late to stop it.
    template <class Body> void RunCall(Body&& body);
    // In a handler: the kind and code of the exception that ended the call.
    void RecordFailure();
    void SignIn(const std::wstring& host, const std::wstring& username, const std::wstring& password,
                const std::wstring& siteId);
    void Publish(const std::wstring& path, const std::wstring& projectName, const std::wstring& datasourceName,
                 bool overwrite);

    std::shared_ptr<INetwork> m_network;
    SessionOptions m_options;
    std::atomic<bool> m_cancel{false};
    CallContext* m_call = nullptr; // the running call's, while one runs
    int64_t m_lastStatus = 0;
    std::wstring m_lastReason;
    FailureKind m_lastFailure = FailureKind::None;
    long m_lastTransportCode = 0;
    uint64_t m_uploadSent = 0;
    uint64_t m_uploadTotal = 0;
    std::wstring m_host;
    std::wstring m_token;
    std::wstring m_siteId;
    bool m_connected = false;
};

} // namespace OrvaneInternal
