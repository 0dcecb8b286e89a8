// The exported functions for the log: where it goes, where it went, and a
// listener that gets every line it writes.
#include <orvane/OrvaneServerExt.h>

#include "capi/ExportedCall.h"
#include "capi/ServerAPI.h"
#include "logging/LogListener.h"
#include "sys/Errors.h"
#include "sys/StringUtils.h"

using OrvaneInternal::LogListener;
using OrvaneInternal::ServerAPI;
using namespace OrvaneInternal::Exported;

extern "C" {

ORV_RESULT OrvServerAPISetLogDirectory(const unsigned short* path)
{
    return Guarded([&] {
        std::wstring directory;
        try {
            directory = path == nullptr ? std::wstring() : StringUtils::ToStdString(path);
        } catch (const QRX_RuntimeError&) {
            SetLastError(L"The log directory is not valid UTF-16");
            return ORV_RESULT_InvalidArgument;
        }
        if (path != nullptr && directory.empty())
            ServerAPI::SetNoLog();
        else
            ServerAPI::SetLogDirectory(directory);
        return ORV_RESULT_Success;
    });
}

const char* OrvServerAPIGetLogPath(void)
{
    const std::string& path = ServerAPI::LogPath();
    return path.empty() ? nullptr : path.c_str();
}

ORV_RESULT OrvServerAPISetLogListener(ORV_LOG_LISTENER listener, void* userData)
{
    return Guarded([&] {
        LogListener::Set(listener, userData);
        return ORV_RESULT_Success;
    });
}

} // extern "C"
