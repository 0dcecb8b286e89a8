// The static start-up members of ServerConnection: libcurl's global state.
#include "server/ServerConnection.h"

#include "logging/Logger.h"
#include "network/CurlNetworkException.h"
#include "network/CurlNetworkStatic.h"
#include "server/CurlErrorLog.h"
#include "server/ServerException.h"

namespace OrvaneInternal {

bool ServerConnection::s_initialized = false;

void ServerConnection::Init()
{
    // The guard against a second start is ServerAPI's; this runs every time.
    Logger::Get()->QueueMessage(std::wstring(L"Curl global initialization"));
    try {
        CurlNetworkStatic::CurlInit();
        s_initialized = true;
    } catch (const CurlNetworkException& e) {
        LogCurlError(e);
        throw ServerException(ServerException::NetworkFailure, L"Curl failed global initialization");
    }
}

void ServerConnection::Cleanup()
{
    // The teardown's log line follows the teardown, unlike start-up.
    CurlNetworkStatic::CurlCleanup();
    Logger::Get()->QueueMessage(std::wstring(L"Curl global cleanup"));
    s_initialized = false;
}

} // namespace OrvaneInternal
