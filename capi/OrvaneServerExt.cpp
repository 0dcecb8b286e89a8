// The exported extension functions of OrvaneServerExt.h, with the conventions
// of OrvaneServer.cpp: argument checks first, then the handle, then the
// session inside one handler. Setters only record a setting; the transfers of
// later calls apply it.
#include <orvane/OrvaneServerExt.h>

#include "capi/ExportedCall.h"
#include "capi/LibraryVersion.h"
#include "server/ServerConnection.h"
#include "server/ServerException.h"
#include "sys/Unicode.h"

#include <string>

using OrvaneInternal::FailureKind;
using OrvaneInternal::ServerConnection;
using OrvaneInternal::ServerException;
using namespace OrvaneInternal::Exported;

static_assert(ORV_VERSION_MAJOR == ORV_LIBRARY_VERSION_MAJOR && ORV_VERSION_MINOR == ORV_LIBRARY_VERSION_MINOR &&
                  ORV_VERSION_PATCH == ORV_LIBRARY_VERSION_PATCH,
              "OrvaneServerExt.h's version macros must match project(... VERSION) in CMakeLists.txt");
static_assert(static_cast<int>(ORV_RESULT_Cancelled) == static_cast<int>(ServerException::Cancelled) &&
                  static_cast<int>(ORV_RESULT_TimedOut) == static_cast<int>(ServerException::TimedOut),
              "the extension result codes are ServerException's");
static_assert(static_cast<int>(ORV_FAILURE_Other) == static_cast<int>(FailureKind::Other) &&
                  static_cast<int>(ORV_FAILURE_RedirectRefused) == static_cast<int>(FailureKind::RedirectRefused) &&
                  static_cast<int>(ORV_FAILURE_Cancelled) == static_cast<int>(FailureKind::Cancelled),
              "ORV_FAILURE is FailureKind, value for value");

namespace {

// Indexed by ORV_FAILURE.
const char* const kFailureNames[] = {
    "None",          "SignInRefused",  "ProjectNotFound", "ExtractUnusable",  "AlreadyExists",
    "Refused",       "ServerError",    "ReplyUnreadable", "Resolve",          "Connect",
    "Tls",           "Proxy",          "ConnectionLost",  "TooManyRedirects", "RedirectRefused",
    "ReplyTooLarge", "ConnectTimeout", "StallTimeout",    "ReplyTimeout",     "TotalTimeout",
    "Cancelled",     "Other",
};
static_assert(sizeof kFailureNames / sizeof kFailureNames[0] == ORV_FAILURE_Other + 1, "a name for every kind");

} // namespace

extern "C" {

const char* OrvServerAPIGetVersion(void)
{
    return ORV_LIBRARY_VERSION;
}

ORV_RESULT OrvServerConnectionSetProgressCallback(void* handle, ORV_PROGRESS_CALLBACK callback, void* userData)
{
    return OnSession(handle, [&](ServerConnection& session) { session.SetProgressCallback(callback, userData); });
}

ORV_RESULT OrvServerConnectionFindProject(void* handle, const unsigned short* projectName)
{
    if (Missing(projectName, L"Invalid argument 'projectName'"))
        return ORV_RESULT_InvalidArgument;
    return OnSession(handle, [&](ServerConnection& session) { session.CheckProject(Wide(projectName)); });
}

ORV_RESULT OrvServerConnectionEnableCancel(void* handle)
{
    return OnSession(handle, [](ServerConnection& session) { session.EnableCancel(); });
}

ORV_RESULT OrvServerConnectionCancel(void* handle)
{
    return OnSession(handle, [](ServerConnection& session) { session.Cancel(); });
}

ORV_RESULT OrvServerConnectionSetConnectTimeout(void* handle, long seconds)
{
    return OnSession(handle, [&](ServerConnection& session) { session.SetConnectTimeout(seconds); });
}

ORV_RESULT OrvServerConnectionSetStallTimeout(void* handle, long seconds)
{
    return OnSession(handle, [&](ServerConnection& session) { session.SetStallTimeout(seconds); });
}

ORV_RESULT OrvServerConnectionSetReplyTimeout(void* handle, long seconds)
{
    return OnSession(handle, [&](ServerConnection& session) { session.SetReplyTimeout(seconds); });
}

ORV_RESULT OrvServerConnectionSetTotalTimeout(void* handle, long seconds)
{
    return OnSession(handle, [&](ServerConnection& session) { session.SetTotalTimeout(seconds); });
}

ORV_RESULT OrvServerConnectionSetMaxRedirects(void* handle, long count)
{
    return OnSession(handle, [&](ServerConnection& session) { session.SetMaxRedirects(count); });
}

ORV_RESULT OrvServerConnectionSetMaxReplySize(void* handle, uint64_t bytes)
{
    return OnSession(handle, [&](ServerConnection& session) { session.SetMaxReplySize(bytes); });
}

ORV_RESULT OrvServerConnectionSetCACertificates(void* handle, const unsigned short* path)
{
    return OnSession(handle, [&](ServerConnection& session) {
        session.SetCACertificates(path != nullptr ? Unicode::ToUTF8(Wide(path)).str() : std::string());
    });
}

ORV_RESULT OrvServerConnectionSetUploadBufferSize(void* handle, long bytes)
{
    return OnSession(handle, [&](ServerConnection& session) { session.SetUploadBufferSize(bytes); });
}

ORV_RESULT OrvServerConnectionSetRedirectPolicy(void* handle, ORV_REDIRECT_POLICY policy)
{
    return OnSession(handle, [&](ServerConnection& session) { session.SetRedirectPolicy(static_cast<int>(policy)); });
}

ORV_RESULT OrvServerConnectionGetHttpStatus(void* handle, long* status)
{
    if (Missing(status, L"Invalid argument 'status'"))
        return ORV_RESULT_InvalidArgument;
    return OnSession(handle, [&](ServerConnection& session) { *status = static_cast<long>(session.GetLastStatus()); });
}

ORV_RESULT OrvServerConnectionGetServerReason(void* handle, const wchar_t** reason)
{
    if (Missing(reason, L"Invalid argument 'reason'"))
        return ORV_RESULT_InvalidArgument;
    return OnSession(handle, [&](ServerConnection& session) { *reason = session.GetLastReason().c_str(); });
}

ORV_RESULT OrvServerConnectionGetFailure(void* handle, ORV_FAILURE* kind, long* transportCode)
{
    if (Missing(kind, L"Invalid argument 'kind'"))
        return ORV_RESULT_InvalidArgument;
    return OnSession(handle, [&](ServerConnection& session) {
        *kind = static_cast<ORV_FAILURE>(session.GetLastFailure());
        if (transportCode != nullptr)
            *transportCode = session.GetLastTransportCode();
    });
}

int OrvFailureIsTransient(ORV_FAILURE kind)
{
    switch (kind) {
    case ORV_FAILURE_Connect:
    case ORV_FAILURE_ConnectionLost:
    case ORV_FAILURE_ConnectTimeout:
    case ORV_FAILURE_StallTimeout:
    case ORV_FAILURE_ReplyTimeout:
    case ORV_FAILURE_TotalTimeout:
    case ORV_FAILURE_ServerError:
        return 1;
    default:
        return 0;
    }
}

const char* OrvFailureName(ORV_FAILURE kind)
{
    const auto index = static_cast<unsigned>(kind);
    return index <= ORV_FAILURE_Other ? kFailureNames[index] : "Unknown";
}

ORV_RESULT OrvServerConnectionGetUploadProgress(void* handle, uint64_t* sent, uint64_t* total)
{
    if (Missing(sent, L"Invalid argument 'sent'") || Missing(total, L"Invalid argument 'total'"))
        return ORV_RESULT_InvalidArgument;
    return OnSession(handle, [&](ServerConnection& session) {
        *sent = session.GetUploadSent();
        *total = session.GetUploadTotal();
    });
}

} // extern "C"
