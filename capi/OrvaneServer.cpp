// The exported C functions. Every one returns a result code and lets no
// exception out: argument checks first (in argument order), then the handle,
// then the session's operation inside one handler that maps ServerException
// to its code and message and anything else to "Unknown error".
#include <orvane/OrvaneServer.h>
#include <orvane/OrvaneServerExt.h>

#include "capi/ExportedCall.h"
#include "capi/ServerAPI.h"
#include "common/HandleRepository.h"
#include "logging/InitializeLogger.h"
#include "server/ServerConnection.h"
#include "server/ServerException.h"
#include "sys/StringUtils.h"
#include "sys/Unicode.h"

using OrvaneInternal::ServerConnection;
using OrvaneInternal::ServerException;
using namespace OrvaneInternal::Exported;

namespace OrvaneInternal {

int OrvHandleClose(void* handle)
{
    // A call running on another thread keeps its own share of the session:
    // it is asked to stop, and the session goes when the call has returned.
    if (const std::shared_ptr<ServerConnection> session = OrvGetHandleRepository().findHandle<ServerConnection>(handle))
        session->Cancel();
    return OrvGetHandleRepository().removeHandle(handle) ? ORV_RESULT_Success : ORV_RESULT_BadHandle;
}

} // namespace OrvaneInternal

extern "C" {

ORV_RESULT OrvServerAPIInitialize(void)
{
    return Guarded([] {
        try {
            OrvaneInternal::ServerAPI::Initialize();
        } catch (const OrvaneInternal::LogDirectoryUnusable& e) {
            // Only with a directory the host chose (an extension).
            SetLastError(Unicode::ToWideCharLossy(e.what()).c_str());
            return static_cast<ORV_RESULT>(ORV_RESULT_LogUnavailable);
        }
        return ORV_RESULT_Success;
    });
}

ORV_RESULT OrvServerAPICleanup(void)
{
    return Guarded([] {
        OrvaneInternal::ServerAPI::Cleanup();
        return ORV_RESULT_Success;
    });
}

ORV_RESULT OrvServerConnectionCreate(void** handle)
{
    return Guarded([&] {
        auto* session = new ServerConnection();
        // A fresh object's address cannot be registered already; the result
        // is ignored on purpose.
        (void)OrvGetHandleRepository().registerHandle<ServerConnection>(session);
        *handle = session;
        return ORV_RESULT_Success;
    });
}

ORV_RESULT OrvServerConnectionConnect(void* handle, const unsigned short* host, const unsigned short* username,
                                      const unsigned short* password, const unsigned short* siteID)
{
    if (Missing(host, L"Invalid argument 'host'") || Missing(username, L"Invalid argument 'username'") ||
        Missing(password, L"Invalid argument 'password'") || Missing(siteID, L"Invalid argument 'siteID'"))
        return ORV_RESULT_InvalidArgument;
    return OnSession(handle, [&](ServerConnection& session) {
        session.Connect(Wide(host), Wide(username), Wide(password), Wide(siteID));
    });
}

ORV_RESULT OrvServerConnectionPublishExtract(void* handle, const unsigned short* path,
                                             const unsigned short* projectName, const unsigned short* datasourceName,
                                             int overwrite)
{
    if (Missing(path, L"Invalid argument 'path'") || Missing(projectName, L"Invalid argument 'projectName'") ||
        Missing(datasourceName, L"Invalid argument 'datasourceName'"))
        return ORV_RESULT_InvalidArgument;
    return OnSession(handle, [&](ServerConnection& session) {
        session.PublishExtract(Wide(path), Wide(projectName), Wide(datasourceName), overwrite != 0);
    });
}

ORV_RESULT OrvServerConnectionDisconnect(void* handle)
{
    return OnSession(handle, [&](ServerConnection& session) { session.Disconnect(); });
}

ORV_RESULT OrvServerConnectionClose(void* handle)
{
    // No handler and no last error, unlike the others: closing an unknown
    // handle only says so in its result. A session's destructor never throws.
    return OrvaneInternal::OrvHandleClose(handle);
}

ORV_RESULT OrvServerConnectionSetProxyCredentials(void* handle, const unsigned short* username,
                                                  const unsigned short* password)
{
    if (Missing(username, L"Invalid argument 'username'") || Missing(password, L"Invalid argument 'password'"))
        return ORV_RESULT_InvalidArgument;
    return OnSession(handle,
                     [&](ServerConnection& session) { session.SetProxyCredentials(Wide(username), Wide(password)); });
}

} // extern "C"
