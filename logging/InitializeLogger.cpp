#include "logging/InitializeLogger.h"

#include "logging/Logger.h"
#include "logging/SimpleLogger.h"
#include "sys/Errors.h"
#include "sys/OS.h"
#include "sys/Path.h"
#include "sys/Unicode.h"

#include <cstdlib>
#include <string>

namespace OrvaneInternal {

namespace {

std::wstring LogDirectory()
{
    const char* value = std::getenv("ORV_SDK_LOGDIR");
    if (!value)
        return std::wstring();
    try {
        return Unicode::ToWideChar(value).str();
    } catch (const QRX_RuntimeError&) {
        return std::wstring(); // not UTF-8: no directory we can name, so the current one is used
    }
}

} // namespace

void InitializeLogger(RefCntPtr<Thread>& loggerThread)
{
    const std::wstring directory = LogDirectory();
    const std::wstring name = L"OrvaneSDKServer.log";
    const std::wstring path = Path::isdir(directory) ? Path::join(directory, name) : name;
    RefCntPtr<Logger> logger(new SimpleLogger(path, 0));

    // Dropping a running Thread would join a writer that waits for lines
    // forever.
    if (loggerThread && loggerThread->Joinable()) {
        Logger::Get()->QueueStop();
        loggerThread->Join();
    }

    Logger::Init(logger);
    RefCntPtr<Thread> thread(new Thread(RefCntPtr<Runnable>(logger)));
    thread->Start();
    loggerThread = thread; // releases the previous writer, and with it the previous logger and its lock

    Logger::Get()->QueueMessage("pid=" + std::to_string(OS::getpid()) + "----------------------------------");
}

} // namespace OrvaneInternal
