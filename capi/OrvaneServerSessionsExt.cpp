// The exported functions that save round trips, and sign-out, with the
// conventions of OrvaneServer.cpp: the handle first, then the session inside
// one handler, whose setters check their values.
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
