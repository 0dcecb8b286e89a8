#include "server/ServerConnection.h"

#include "logging/Logger.h"
#include "network/CallContext.h"
#include "network/CurlNetworkException.h"
#include "network/INetwork.h"
#include "network/NetworkFactory.h"
#include "rest/BufferReply.h"
#include "rest/RestIO.h"
#include "server/ConnectReqMsg.h"
#include "server/ConnectRespMsg.h"
#include "server/CurlErrorLog.h"
#include "server/MessageConversion.h"
#include "server/PublishExtReqMsg.h"
#include "server/PublishExtRespMsg.h"
#include "server/QueryProjReqMsg.h"
#include "server/QueryProjRespMsg.h"
#include "server/ServerException.h"
#include "server/ServerReason.h"
#include "sys/Errors.h"
#include "sys/Path.h"
#include "sys/Unicode.h"

#include <optional>
#include <stdexcept>
#include <utility>

namespace OrvaneInternal {

namespace {

void Log(const std::wstring& line)
{
    Logger::Get()->QueueMessage(line);
}

const wchar_t kNotConnected[] = L"Connect must be called first";
const wchar_t kCancelled[] = L"Cancelled";

// What a refused reply means, by status and by what was asked:
//   401, 403, 404 at sign-in     -> SignInRefused (wrong credentials or site)
//   409 on an upload, no overwrite -> AlreadyExists
//   407                          -> Proxy (a proxy wants credentials)
//   any other 4xx                -> Refused
//   5xx                          -> ServerError
//   anything else outside 2xx    -> ReplyUnreadable
FailureKind FailureOfStatus(int64_t status, ServerConnection::Exchange exchange)
{
    const bool signIn = exchange == ServerConnection::Exchange::SignIn;
    if (signIn && (status == 401 || status == 403 || status == 404))
        return FailureKind::SignInRefused;
    if (exchange == ServerConnection::Exchange::Upload && status == 409)
        return FailureKind::AlreadyExists;
    if (status == 407)
        return FailureKind::Proxy;
    if (status >= 400 && status <= 499)
        return FailureKind::Refused;
    if (status >= 500 && status <= 599)
        return FailureKind::ServerError;
    return FailureKind::ReplyUnreadable;
}

// The one place where a transport failure becomes the session's error: a
// cancel gives "Cancelled" (500), a time limit of the call's own libcurl's
// text (501), any other failure libcurl's text (400); each keeps its kind and
// libcurl's code. Other exceptions pass unchanged.
[[noreturn]] void ThrowTransportFailure()
{
    try {
        throw;
    } catch (const TransferStopped& e) {
        const bool cancelled = e.Failure() == FailureKind::Cancelled;
        const std::wstring text = cancelled ? std::wstring(kCancelled) : Unicode::ToWideChar(e.what()).str();
        Log(text);
        throw ServerException(cancelled ? ServerException::Cancelled : ServerException::TimedOut, text, e.Failure(),
                              e.Code());
    } catch (const CurlNetworkException& e) {
        LogCurlError(e);
        throw ServerException(ServerException::NetworkFailure, Unicode::ToWideChar(e.what()).str(), e.Failure(),
                              e.Code());
    }
}

} // namespace

template <class Body> void ServerConnection::RunCall(Body&& body)
{
    m_lastStatus = 0;
    m_lastReason.clear();
    m_lastFailure = FailureKind::None;
    m_lastTransportCode = 0;
    CallContext context(m_options, m_cancel);
    m_call = &context;
    const auto end = [&] {
        m_call = nullptr;
        m_uploadSent = context.m_uploadSent;
        m_uploadTotal = context.m_uploadTotal;
        // A cancel that came too late to stop this call must not stop the next.
        m_cancel.store(false);
    };
    try {
        if (m_cancel.exchange(false))
            throw ServerException(ServerException::Cancelled, kCancelled);
        body();
    } catch (...) {
        end();
        RethrowForcedUnwind();
        RecordFailure();
        throw;
    }
    end();
}

void ServerConnection::RecordFailure()
{
    // A body part that cannot be read is the extract's fault; the standard
    // library's number errors come from a reply's values.
    try {
        throw;
    } catch (const ServerException& e) {
        m_lastFailure = e.getFailure();
        m_lastTransportCode = e.getTransportCode();
    } catch (RestIO::RestIOException&) {
        m_lastFailure = FailureKind::ExtractUnusable;
    } catch (const std::invalid_argument&) {
        m_lastFailure = FailureKind::ReplyUnreadable;
    } catch (const std::out_of_range&) {
        m_lastFailure = FailureKind::ReplyUnreadable;
    } catch (...) {
        m_lastFailure = FailureKind::Other;
    }
}

ServerConnection::ServerConnection() : m_network(NetworkFactory::Create())
{
    // The transport is made first on purpose: a refused construction makes
    // (and releases) one too.
    if (!s_initialized)
        throw ServerException(ServerException::NotInitialized, L"Initialize() must be called before any other use.");
}

ServerConnection::~ServerConnection()
{
    if (m_connected)
        Disconnect();
}

void ServerConnection::SetProxyCredentials(const std::wstring& user, const std::wstring& password)
{
    const std::string userUtf8 = Unicode::ToUTF8(user).str();
    const std::string passwordUtf8 = Unicode::ToUTF8(password).str();
    m_network->SetProxyCredentials(userUtf8, passwordUtf8);
}

void ServerConnection::Disconnect()
{
    // Client side only: the server-side sign-in is simply forgotten.
    Log(L"Disconnecting: " + m_host);
    m_host.clear();
    m_token.clear();
    m_siteId.clear();
    m_connected = false;
    m_projectCache.Clear();
    m_network->CloseConnections();
}

std::string ServerConnection::Send(const ReqMsg& message, Exchange exchange)
{
    std::shared_ptr<RestRequest> request = ConvertReqMsg(message);
    if (message.m_repType == ReqMsg::Unknown)
        throw ServerException(ServerException::UnknownReplyType, L"Unknown REST reply type");
    if (!request) // a message of kind None has nothing to send
        ThrowLogicError(QRX_Status::InvalidArgument, "request message converts to no HTTP request");
    // A request made outside an exported call gets a context of its own.
    std::optional<CallContext> alone;
    CallContext& context = m_call != nullptr ? *m_call : alone.emplace(m_options, m_cancel);
    context.m_upload = exchange == Exchange::Upload || exchange == Exchange::Overwrite;
    BufferReply reply;
    try {
        m_network->Send(*request, reply, context);
    } catch (...) {
        m_lastStatus = reply.m_status;
        ThrowTransportFailure();
    }
    std::string body = ConvertRestReply(reply, message.m_repType);
    m_lastStatus = reply.m_status;
    // Unsigned on purpose: 0 and negative statuses fail too.
    if (static_cast<uint64_t>(reply.m_status) - 200 <= 99)
        return body;
    // The last error names the status only; the server's explanation goes to
    // the log, and to the caller only through the reason getter.
    m_lastReason = ServerReason(body);
    const std::wstring text = L"Server Response Code: " + std::to_wstring(static_cast<int32_t>(reply.m_status));
    RefCntPtr<Logger> logger = Logger::Get();
    logger->QueueMessage(text);
    logger->QueueMessage("Response:\n" + body);
    throw ServerException(ServerException::ServerResponseError, text, FailureOfStatus(reply.m_status, exchange));
}

void ServerConnection::Connect(const std::wstring& host, const std::wstring& username, const std::wstring& password,
                               const std::wstring& siteId)
{
    RunCall([&] { SignIn(host, username, password, siteId); });
}

void ServerConnection::SignIn(const std::wstring& host, const std::wstring& username, const std::wstring& password,
                              const std::wstring& siteId)
{
    if (m_connected) {
        Log(L"About to disconnect: " + m_host);
        Disconnect();
    }
    // Trailing slashes go; a URL of slashes only is kept as given.
    const std::size_t last = host.find_last_not_of(L'/');
    m_host = last == std::wstring::npos ? host : host.substr(0, last + 1);

    Log(L"Connecting: " + m_host);
    Log(L"Username  : " + username);
    Log(L"Site ID   : " + siteId);

    const ConnectRespMsg reply(Send(ConnectReqMsg(m_host, username, password, siteId), Exchange::SignIn));
    m_token = reply.m_token;
    m_siteId = reply.m_siteId;
    m_connected = true;
}

bool ServerConnection::QueryProjects(unsigned long pageNumber, std::unordered_map<std::wstring, std::wstring>& projects)
{
    if (!m_connected)
        throw ServerException(ServerException::NotConnected, kNotConnected);
    QueryProjRespMsg reply(Send(QueryProjReqMsg(m_host, m_siteId, m_token, pageNumber), Exchange::Lookup));

    const uint64_t pageSize = QueryProjReqMsg::kPageSize;
    if (reply.m_pageNumber != pageNumber || reply.m_pageSize != pageSize)
        throw ServerException(ServerException::ServerResponseError, L"PageNumber or pageSize mismatch",
                              FailureKind::ReplyUnreadable);
    // Unsigned arithmetic throughout: a page past the end wraps the expected
    // count and fails the check below.
    const uint64_t before = static_cast<uint64_t>(pageNumber) * pageSize;
    const bool more = before < reply.m_totalAvailable;
    const uint64_t expected = more ? pageSize : reply.m_totalAvailable + pageSize - before;
    if (reply.m_projects.size() != expected)
        throw ServerException(ServerException::ServerResponseError, L"Item number mismatch",
                              FailureKind::ReplyUnreadable);
    // The page's map is handed over whole (the reply ends here); what the
    // caller held before is dropped, never merged.
    projects = std::move(reply.m_projects);
    return !more;
}

void ServerConnection::PublishExtract(const std::wstring& path, const std::wstring& projectName,
                                      const std::wstring& datasourceName, bool overwrite)
{
    RunCall([&] { Publish(path, projectName, datasourceName, overwrite); });
}

void ServerConnection::Publish(const std::wstring& path, const std::wstring& projectName,
                               const std::wstring& datasourceName, bool overwrite)
{
    // One message for all three checks, so the caller cannot tell a wrong
    // extension from a missing file. Only a regular file (or a link to one)
    // counts: a directory would be measured at an absurd size, and opening a
    // FIFO would wait for a writer forever.
    const std::size_t extension = path.rfind(L".qrx");
    if (extension == std::wstring::npos || path.compare(extension, std::wstring::npos, L".qrx") != 0 ||
        !Path::isfile(path))
        throw ServerException(ServerException::InvalidPublishInput,
                              L"File \"" + path + L"\" is either invalid or doesn't exist",
                              FailureKind::ExtractUnusable);

    bool cached = false;
    const std::wstring projectId = ProjectId(projectName, cached);
    Log(L"Publishing extract: " + path);
    Log(L"Project name      : " + projectName);
    Log(L"Data source name  : " + datasourceName);
    PublishToProject(path, projectName, projectId, cached, datasourceName, overwrite);
}

std::wstring ServerConnection::FindProject(const std::wstring& projectName)
{
    Log(L"Querying projects...");
    std::unordered_map<std::wstring, std::wstring> projects(10);
    // Stops at the first page that names the project; later pages are never read.
    for (unsigned long page = 1;; ++page) {
        const bool last = QueryProjects(page, projects);
        const auto found = projects.find(projectName);
        if (found != projects.end())
            return found->second;
        if (last)
            throw ServerException(ServerException::InvalidPublishInput,
                                  L"Project \"" + projectName + L"\" doesn't exist on server",
                                  FailureKind::ProjectNotFound);
    }
}

void ServerConnection::PublishExtractInternal(const std::wstring& path, const std::wstring& projectId,
                                              const std::wstring& datasourceName, bool overwrite)
{
    if (!m_connected)
        throw ServerException(ServerException::NotConnected, kNotConnected);
    const PublishExtRespMsg reply(
        Send(PublishExtReqMsg(m_host, m_siteId, m_token, path, projectId, datasourceName, overwrite),
             overwrite ? Exchange::Overwrite : Exchange::Upload));
    (void)reply; // a reply of the right shape is the success
}

void ServerConnection::SignOut()
{
    // A cancel made between calls was aimed at the work, not at the cleanup
    // that follows it; one made during the sign-out still stops it.
    m_cancel.store(false);
    RunCall([&] { SendSignOut(); });
}

void ServerConnection::CheckProject(const std::wstring& projectName)
{
    RunCall([&] { (void)FindProject(projectName); });
}

} // namespace OrvaneInternal
