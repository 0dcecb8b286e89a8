// What every exported function shares: one handler that lets no exception
// out (ServerException becomes its code and message, anything else "Unknown
// error" and a log line "Error: " with the reason), the null-argument check
// and the handle lookup.
#ifndef ORVANE_CAPI_EXPORTEDCALL_H
#define ORVANE_CAPI_EXPORTEDCALL_H

#include <orvane/OrvaneCommon.h>

#include <exception>
#include <memory>
#include <string>

#include "common/HandleRepository.h"
#include "logging/Logger.h"
#include "rest/RestIO.h"
#include "server/ServerConnection.h"
#include "server/ServerException.h"
#include "sys/Errors.h"
#include "sys/StringUtils.h"

namespace OrvaneInternal::Exported {

inline void SetLastError(const wchar_t* message)
{
    try {
        OrvSetLastErrorMessage(message);
    } catch (...) {
        RethrowForcedUnwind();
        // Out of memory for the message itself: the code still tells the caller.
    }
}

// Called from a handler: the log line behind "Unknown error", which tells the
// caller nothing more. The text is the exception's own; none of them carries
// a password.
inline void LogUnknownError()
{
    try {
        std::string reason;
        try {
            throw;
        } catch (RestIO::RestIOException& e) {
            reason = e.what(); // its text is only on the non-const what()
        } catch (const std::exception& e) {
            reason = e.what();
        } catch (...) {
            reason = "an exception of unknown type";
        }
        Logger::Get()->QueueMessage("Error: " + reason);
    } catch (...) {
        RethrowForcedUnwind();
        // Out of memory for the line: the caller still gets its code.
    }
}

template <class Operation> ORV_RESULT Guarded(Operation&& operation)
{
    try {
        return operation();
    } catch (const ServerException& e) {
        SetLastError(e.getMessage().c_str());
        return e.getErrorCode();
    } catch (...) {
        RethrowForcedUnwind(); // the caller's thread is ending: let it
        LogUnknownError();
        SetLastError(L"Unknown error");
        return ORV_RESULT_UnknownError;
    }
}

// The first null argument names itself in the last error.
inline bool Missing(const void* argument, const wchar_t* message)
{
    if (argument != nullptr)
        return false;
    SetLastError(message);
    return true;
}

// Null, closed or never created; only the registry knows. The share keeps
// the session alive for the whole call, should another thread close the
// handle meanwhile.
inline std::shared_ptr<ServerConnection> Session(void* handle)
{
    std::shared_ptr<ServerConnection> session = OrvGetHandleRepository().findHandle<ServerConnection>(handle);
    if (!session)
        SetLastError(L"Invalid ServerConnection handle");
    return session;
}

// The common shape of a function on a handle: the handle looked up, then
// `operation` applied to its session inside the handler.
template <class Operation> ORV_RESULT OnSession(void* handle, Operation&& operation)
{
    return Guarded([&] {
        const std::shared_ptr<ServerConnection> session = Session(handle);
        if (!session)
            return ORV_RESULT_BadHandle;
        operation(*session);
        return ORV_RESULT_Success;
    });
}

inline std::wstring Wide(const unsigned short* text)
{
    return StringUtils::ToStdString(text);
}

} // namespace OrvaneInternal::Exported

#endif // ORVANE_CAPI_EXPORTEDCALL_H
