// The session with one server: one object per exported handle. It owns its
// transport for its whole life and remembers where it signed in, with which
// token and site. Not locked: one thread uses a session at a time.
#pragma once

#include "network/FailureKind.h"

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>

namespace OrvaneInternal {

class INetwork;
class ReqMsg;
class RestRequest;
struct TransferOptions;

class ServerConnection {
  public:
    // Throws ServerException 404 before library start-up (the transport is made
    // first, and released again).
    ServerConnection();
    // Disconnects a connected session; never throws.
    ~ServerConnection();
    ServerConnection(const ServerConnection&) = delete;
    ServerConnection& operator=(const ServerConnection&) = delete;

    void SetProxyCredentials(const std::wstring& user, const std::wstring& password);
    // What a request asks of the server, for reading a refusal.
    enum class Exchange { SignIn, Lookup, Upload, Overwrite };

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
    // Performs one request; returns the body of a 2xx reply.
    std::string Send(const ReqMsg& message, Exchange exchange);

    // libcurl's global state, owned by library start-up and shutdown.
    static void Init();
    static void Cleanup();
    static bool s_initialized;

    // The extension settings, shared with the transport; set by the thread
    // that uses the session.
    TransferOptions& Options() { return *m_options; }
    // Safe from any thread while another is inside a call on the session.
    void Cancel();
    // Of the last call: the last reply's status (0: none), and the server's
    // explanation when it refused ("" otherwise).
    int64_t GetLastStatus() const { return m_lastStatus; }
    const std::wstring& GetLastReason() const { return m_lastReason; }
    // Of the last call: what kind of failure ended it (None after a success)
    // and libcurl's code for it (0 when libcurl reported none).
    FailureKind GetLastFailure() const { return m_lastFailure; }
    long GetLastTransportCode() const { return m_lastTransportCode; }
    // Of the last call's upload: the bytes libcurl took for sending and the
    // body's length; both 0 when it uploaded nothing.
    uint64_t GetUploadSent() const { return m_uploadSent; }
    uint64_t GetUploadTotal() const { return m_uploadTotal; }

    bool IsConnected() const { return m_connected; }
    const std::wstring& GetHost() const { return m_host; }
    const std::wstring& GetToken() const { return m_token; }
    const std::wstring& GetSiteId() const { return m_siteId; }

  private:
    // Brackets every call: forgets the last call's outcome, and drops a cancel
    // that came too late to stop the call.
    class CallScope {
      public:
        explicit CallScope(ServerConnection& session);
        ~CallScope();
        CallScope(const CallScope&) = delete;
        CallScope& operator=(const CallScope&) = delete;

      private:
        ServerConnection& m_session;
    };

    // Runs one call in a CallScope: stops at once for a cancel made before
    // it, and records the kind of the failure that ends it.
    template <class Body> void RunCall(Body&& body);
    void SignIn(const std::wstring& host, const std::wstring& username, const std::wstring& password,
                const std::wstring& siteId);
    void Publish(const std::wstring& path, const std::wstring& projectName, const std::wstring& datasourceName,
                 bool overwrite);

    // Before an exchange: stops for a cancel, and has the request body's read
    // path check for one (and, for an upload, report its progress).
    void WatchBody(RestRequest& request, bool upload);

    std::shared_ptr<INetwork> m_network;
    std::shared_ptr<TransferOptions> m_options;
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
