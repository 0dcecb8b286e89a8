#include "server/ServerConnection.h"

#include "logging/Logger.h"
#include "network/CurlNetworkException.h"
#include "network/INetwork.h"
#include "network/NetworkFactory.h"
#include "network/TransferOptions.h"
#include "rest/BufferReply.h"
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

#include <utility>

namespace OrvaneInternal {

namespace {

void Log(const std::wstring& line)
{
    Logger::Get()->QueueMessage(line);
}

const wchar_t kNotConnected[] = L"Connect must be called first";

} // namespace

ServerConnection::ServerConnection() : m_network(NetworkFactory::Create())
{
    // The transport is made first on purpose: a refused construction makes
    // (and releases) one too.
    if (!s_initialized)
        throw ServerException(ServerException::NotInitialized, L"Initialize() must be called before any other use.");
    m_options = std::make_shared<TransferOptions>();
    m_network->SetTransferOptions(m_options);
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
}

std::string ServerConnection::Send(const ReqMsg& message)
{
    std::shared_ptr<RestRequest> request = ConvertReqMsg(message);
    if (message.m_repType == ReqMsg::Unknown)
        throw ServerException(ServerException::UnknownReplyType, L"Unknown REST reply type");
    if (!request) // a message of kind None has nothing to send
        ThrowLogicError(QRX_Status::InvalidArgument, "request message converts to no HTTP request");
    auto reply = std::make_shared<BufferReply>();
    WatchBody(*request);
    try {
        m_network->Send(*request, *reply);
    } catch (const TransferStopped& e) {
        const bool cancelled = e.GetReason() == TransferStopped::Cancelled;
        const std::wstring text = Unicode::ToWideChar(e.what()).str();
        Log(text);
        throw ServerException(cancelled ? ServerException::Cancelled : ServerException::TimedOut, text);
    } catch (const CurlNetworkException& e) {
        LogCurlError(e);
        throw ServerException(ServerException::NetworkFailure, Unicode::ToWideChar(e.what()).str());
    }
    std::string body = ConvertRestReply(*reply, message.m_repType);
    m_lastStatus = reply->m_status;
    // Unsigned on purpose: 0 and negative statuses fail too.
    if (static_cast<uint64_t>(reply->m_status) - 200 <= 99)
        return body;
    // The last error names the status only; the server's explanation goes to
    // the log, and to the caller only through the reason getter.
    m_lastReason = ServerReason(body);
    const std::wstring text = L"Server Response Code: " + std::to_wstring(static_cast<int32_t>(reply->m_status));
    RefCntPtr<Logger> logger = Logger::Get();
    logger->QueueMessage(text);
    logger->QueueMessage("Response:\n" + body);
    throw ServerException(ServerException::ServerResponseError, text);
}

void ServerConnection::Connect(const std::wstring& host, const std::wstring& username, const std::wstring& password,
                               const std::wstring& siteId)
{
    const CallScope call(*this);
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

    const ConnectRespMsg reply(Send(ConnectReqMsg(m_host, username, password, siteId)));
    m_token = reply.m_token;
    m_siteId = reply.m_siteId;
    m_connected = true;
}

bool ServerConnection::QueryProjects(unsigned long pageNumber, std::unordered_map<std::wstring, std::wstring>& projects)
{
    if (!m_connected)
        throw ServerException(ServerException::NotConnected, kNotConnected);
    QueryProjRespMsg reply(Send(QueryProjReqMsg(m_host, m_siteId, m_token, pageNumber)));

    const uint64_t pageSize = QueryProjReqMsg::kPageSize;
    if (reply.m_pageNumber != pageNumber || reply.m_pageSize != pageSize)
        throw ServerException(ServerException::ServerResponseError, L"PageNumber or pageSize mismatch");
    // Unsigned arithmetic throughout: a page past the end wraps the expected
    // count and fails the check below.
    const uint64_t before = static_cast<uint64_t>(pageNumber) * pageSize;
    const bool more = before < reply.m_totalAvailable;
    const uint64_t expected = more ? pageSize : reply.m_totalAvailable + pageSize - before;
    if (reply.m_projects.size() != expected)
        throw ServerException(ServerException::ServerResponseError, L"Item number mismatch");
    // The page's map is handed over whole (the reply ends here); what the
    // caller held before is dropped, never merged.
    projects = std::move(reply.m_projects);
    return !more;
}

void ServerConnection::PublishExtract(const std::wstring& path, const std::wstring& projectName,
                                      const std::wstring& datasourceName, bool overwrite)
{
    const CallScope call(*this);
    // One message for all three checks, so the caller cannot tell a wrong
    // extension from a missing file. Only a regular file (or a link to one)
    // counts: a directory would be measured at an absurd size, and opening a
    // FIFO would wait for a writer forever.
    const std::size_t extension = path.rfind(L".qrx");
    if (extension == std::wstring::npos || path.compare(extension, std::wstring::npos, L".qrx") != 0 ||
        !Path::isfile(path))
        throw ServerException(ServerException::InvalidPublishInput,
                              L"File \"" + path + L"\" is either invalid or doesn't exist");

    const std::wstring projectId = FindProject(projectName);
    Log(L"Publishing extract: " + path);
    Log(L"Project name      : " + projectName);
    Log(L"Data source name  : " + datasourceName);
    PublishExtractInternal(path, projectId, datasourceName, overwrite);
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
                                  L"Project \"" + projectName + L"\" doesn't exist on server");
    }
}

void ServerConnection::PublishExtractInternal(const std::wstring& path, const std::wstring& projectId,
                                              const std::wstring& datasourceName, bool overwrite)
{
    if (!m_connected)
        throw ServerException(ServerException::NotConnected, kNotConnected);
    const PublishExtRespMsg reply(
        Send(PublishExtReqMsg(m_host, m_siteId, m_token, path, projectId, datasourceName, overwrite)));
    (void)reply; // a reply of the right shape is the success
}

} // namespace OrvaneInternal
