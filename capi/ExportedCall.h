// What every exported function shares: one handler that lets no exception
// out (ServerException becomes its code and message, anything else "Unknown
// error"), the null-argument check and the handle lookup.
#ifndef ORVANE_CAPI_EXPORTEDCALL_H
#define ORVANE_CAPI_EXPORTEDCALL_H

#include <orvane/OrvaneCommon.h>

#include <string>

#include "common/HandleRepository.h"
#include "server/ServerConnection.h"
#include "server/ServerException.h"
#include "sys/StringUtils.h"

namespace OrvaneInternal::Exported {

inline void SetLastError(const wchar_t* message)
{
    try {
        OrvSetLastErrorMessage(message);
    } catch (...) {
        // Out of memory for the message itself: the code still tells the caller.
    }
}

template <class Operation>
ORV_RESULT Guarded(Operation&& operation)
{
    try {
        return operation();
    } catch (const ServerException& e) {
        SetLastError(e.getMessage().c_str());
        return e.getErrorCode();
    } catch (...) {
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

// Null, closed or never created; only the registry knows, and the handle is
// then used as the session's address.
inline ServerConnection* Session(void* handle)
{
    if (!OrvGetHandleRepository().handleExists(handle) || handle == nullptr) {
        SetLastError(L"Invalid ServerConnection handle");
        return nullptr;
    }
    return static_cast<ServerConnection*>(handle);
}

inline std::wstring Wide(const unsigned short* text)
{
    return StringUtils::ToStdString(text);
}

}  // namespace OrvaneInternal::Exported

#endif  // ORVANE_CAPI_EXPORTEDCALL_H
