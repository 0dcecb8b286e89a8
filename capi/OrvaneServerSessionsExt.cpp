// The exported functions that save round trips, and sign-out, with the
// conventions of OrvaneServer.cpp: argument checks first, then the handle,
// then the session inside one handler.
#include <orvane/OrvaneServerExt.h>

#include "capi/ExportedCall.h"
#include "server/ServerConnection.h"

using OrvaneInternal::ServerConnection;
using namespace OrvaneInternal::Exported;

extern "C" {

ORV_RESULT OrvServerConnectionSetConnectionReuse(void* handle, int enable)
{
    return OnSession(handle, [&](ServerConnection& session) { session.SetConnectionReuse(enable != 0); });
}

ORV_RESULT OrvServerConnectionSetProjectCache(void* handle, long seconds)
{
    if (seconds < 0) {
        SetLastError(L"Invalid argument 'seconds'");
        return ORV_RESULT_InvalidArgument;
    }
    return OnSession(handle, [&](ServerConnection& session) { session.SetProjectCache(seconds); });
}

ORV_RESULT OrvServerConnectionSetExpectContinue(void* handle, int enable)
{
    return OnSession(handle, [&](ServerConnection& session) { session.SetExpectContinue(enable != 0); });
}

ORV_RESULT OrvServerConnectionSignOut(void* handle)
{
    return OnSession(handle, [](ServerConnection& session) { session.SignOut(); });
}

} // extern "C"
