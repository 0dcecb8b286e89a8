// Sign-out, and the project cache at work: a publish to a remembered project
// skips the page walk. Their settings live with the others.
#include "logging/Logger.h"
#include "server/ServerConnection.h"
#include "server/ServerException.h"
#include "server/SignOutReqMsg.h"

namespace OrvaneInternal {

void ServerConnection::SendSignOut()
{
    if (!m_connected)
        throw ServerException(ServerException::NotConnected, L"Connect must be called first");
    Logger::Get()->QueueMessage(L"Signing out: " + m_host);
    try {
        (void)Send(SignOutReqMsg(m_host, m_token), Exchange::Lookup);
    } catch (...) {
        Disconnect();
        throw;
    }
    Disconnect();
}

std::wstring ServerConnection::ProjectId(const std::wstring& projectName, bool& cached)
{
    const std::optional<std::wstring> known = m_projectCache.Find(projectName);
    cached = known.has_value();
    if (cached)
        return *known;
    std::wstring id = FindProject(projectName);
    m_projectCache.Remember(projectName, id);
    return id;
}

void ServerConnection::PublishToProject(const std::wstring& path, const std::wstring& projectName,
                                        const std::wstring& projectId, bool cached, const std::wstring& datasourceName,
                                        bool overwrite)
{
    try {
        PublishExtractInternal(path, projectId, datasourceName, overwrite);
        return;
    } catch (const ServerException& e) {
        // Only a remembered id the server no longer knows is worth a second
        // walk; every other failure is the answer.
        if (!cached || e.getErrorCode() != ServerException::ServerResponseError || m_lastStatus != 404)
            throw;
    }
    m_projectCache.Forget(projectName);
    Logger::Get()->QueueMessage(L"Project id no longer valid, looking it up again: " + projectName);
    bool again = false;
    PublishExtractInternal(path, ProjectId(projectName, again), datasourceName, overwrite);
}

} // namespace OrvaneInternal
