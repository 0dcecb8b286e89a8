// ServerConnection's settings: each value checked, then kept in the
// session's options for the calls to come.
#include "network/INetwork.h"
#include "server/ServerConnection.h"

#include "server/ServerException.h"

#include <optional>
#include <string>

namespace OrvaneInternal {

namespace {

// Longest time limit: libcurl counts milliseconds in an int. It bounds the
// project cache too, whose expiry must not overflow the clock.
constexpr long kLongestSeconds = 2147483;
constexpr long kSmallestUploadBuffer = 16 * 1024; // libcurl's limits
constexpr long kLargestUploadBuffer = 2 * 1024 * 1024;

// Refuses a setting out of range, naming the argument as the caller knows it.
void CheckRange(bool valid, const wchar_t* argument)
{
    if (!valid)
        throw ServerException(ServerException::InvalidArgument, std::wstring(L"Invalid argument '") + argument + L"'");
}

std::optional<long> Seconds(long seconds)
{
    CheckRange(seconds >= 0 && seconds <= kLongestSeconds, L"seconds");
    if (seconds == 0)
        return std::nullopt;
    return seconds;
}

} // namespace

void ServerConnection::SetConnectTimeout(long seconds)
{
    m_options.m_connectTimeout = Seconds(seconds);
}

void ServerConnection::SetStallTimeout(long seconds)
{
    m_options.m_stallTimeout = Seconds(seconds);
}

void ServerConnection::SetReplyTimeout(long seconds)
{
    m_options.m_replyTimeout = Seconds(seconds);
}

void ServerConnection::SetTotalTimeout(long seconds)
{
    m_options.m_totalTimeout = Seconds(seconds);
}

void ServerConnection::SetMaxRedirects(long count)
{
    m_options.m_maxRedirects = count < 0 ? std::nullopt : std::optional<long>(count);
}

void ServerConnection::SetMaxReplySize(uint64_t bytes)
{
    m_options.m_maxReplySize = bytes == 0 ? std::nullopt : std::optional<uint64_t>(bytes);
}

void ServerConnection::SetCACertificates(const std::string& utf8Path)
{
    m_options.m_caPath = utf8Path.empty() ? std::nullopt : std::optional<std::string>(utf8Path);
}

void ServerConnection::SetUploadBufferSize(long bytes)
{
    CheckRange(bytes == 0 || (bytes >= kSmallestUploadBuffer && bytes <= kLargestUploadBuffer), L"bytes");
    m_options.m_uploadBufferSize = bytes == 0 ? std::nullopt : std::optional<long>(bytes);
}

void ServerConnection::SetRedirectPolicy(int policy)
{
    using Policy = SessionOptions::RedirectPolicy;
    CheckRange(policy >= static_cast<int>(Policy::Follow) && policy <= static_cast<int>(Policy::SameOrigin), L"policy");
    m_options.m_redirectPolicy = static_cast<Policy>(policy);
}

void ServerConnection::SetConnectionReuse(bool enable)
{
    m_options.m_connectionReuse = enable;
    if (!enable)
        m_network->CloseConnections();
}

void ServerConnection::SetProjectCache(long seconds)
{
    CheckRange(seconds >= 0 && seconds <= kLongestSeconds, L"seconds");
    m_projectCache.SetLifetime(seconds);
}

void ServerConnection::SetExpectContinue(bool enable)
{
    m_options.m_expectContinue = enable;
}

void ServerConnection::SetProgressCallback(SessionOptions::ProgressCallback callback, void* userData)
{
    m_options.m_progress = callback;
    m_options.m_progressData = callback != nullptr ? userData : nullptr;
}

} // namespace OrvaneInternal
