// The session with one server: one object per exported handle. It owns its
// transport for its whole life and remembers where it signed in, with which
// token and site. Not locked: one thread uses a session at a time.
#pragma once

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
    std::string Send(const ReqMsg& message);

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

    bool IsConnected() const { return m_connected; }
    const std::wstring& GetHost() const { return m_host; }
    const std::wstring& GetToken() const { return m_token; }
    const std::wstring& GetSiteId() const { return m_siteId; }

  private:
    // Brackets Connect and PublishExtract: forgets the last status and reason,
    // stops at once for a cancel made before the call, and drops a cancel that
    // came too late to stop it.
    class CallScope {
      public:
        explicit CallScope(ServerConnection& session);
        ~CallScope();
        CallScope(const CallScope&) = delete;
        CallScope& operator=(const CallScope&) = delete;

      private:
        ServerConnection& m_session;
    };

    // Before an exchange: stops for a cancel, and has the request body's read
    // path check for one (and report the upload's progress).
    void WatchBody(RestRequest& request);

    std::shared_ptr<INetwork> m_network;
    std::shared_ptr<TransferOptions> m_options;
    int64_t m_lastStatus = 0;
    std::wstring m_lastReason;
    std::wstring m_host;
    std::wstring m_token;
    std::wstring m_siteId;
    bool m_connected = false;
};

} // namespace OrvaneInternal
