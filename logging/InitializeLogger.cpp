#include "logging/InitializeLogger.h"

#include "logging/Logger.h"
#include "logging/SimpleLogger.h"
#include "sys/Errors.h"
#include "sys/OS.h"
#include "sys/Path.h"
#include "sys/Unicode.h"

#include <cstdlib>
#include <filesystem>
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

// The native form made absolute, so that the path still names the file after
// the host changes its directory.
std::string AbsoluteNative(const std::wstring& path)
{
    const std::string native = Path::native(path);
    std::error_code error;
    const std::filesystem::path absolute = std::filesystem::absolute(native, error);
    return error ? native : absolute.lexically_normal().string();
}

RefCntPtr<SimpleLogger> OpenInChosenDirectory(const std::wstring& directory, const std::wstring& name)
{
    const std::string shown = Unicode::ToUTF8Lossy(directory);
    if (!Path::isdir(directory))
        throw LogDirectoryUnusable("The log directory '" + shown + "' is not a directory");
    try {
        return RefCntPtr<SimpleLogger>(new SimpleLogger(Path::join(directory, name), 0));
    } catch (const QRX_InvalidArgument&) {
        throw LogDirectoryUnusable("No log file can be opened in '" + shown + "'");
    }
}

} // namespace

void InitializeWithoutLog(RefCntPtr<Thread>& loggerThread)
{
    if (loggerThread && loggerThread->Joinable()) {
        Logger::Get()->QueueStop();
        loggerThread->Join();
    }
    Logger::Init(RefCntPtr<Logger>()); // the null logger drops every line
    loggerThread = RefCntPtr<Thread>();
}

std::string InitializeLogger(RefCntPtr<Thread>& loggerThread, const std::wstring& directory)
{
    const std::wstring name = L"OrvaneSDKServer.log";
    RefCntPtr<SimpleLogger> logger;
    if (directory.empty()) {
        const std::wstring fromEnvironment = LogDirectory();
        const std::wstring path = Path::isdir(fromEnvironment) ? Path::join(fromEnvironment, name) : name;
        logger = RefCntPtr<SimpleLogger>(new SimpleLogger(path, 0));
    } else {
        logger = OpenInChosenDirectory(directory, name);
    }
    const std::string logPath = AbsoluteNative(logger->GetFilePath());

    // Dropping a running Thread would join a writer that waits for lines
    // forever.
    if (loggerThread && loggerThread->Joinable()) {
        Logger::Get()->QueueStop();
        loggerThread->Join();
    }

    Logger::Init(RefCntPtr<Logger>(logger));
    RefCntPtr<Thread> thread(new Thread(RefCntPtr<Runnable>(logger)));
    thread->Start();
    loggerThread = thread; // releases the previous writer, and with it the previous logger and its lock

    Logger::Get()->QueueMessage("pid=" + std::to_string(OS::getpid()) + "----------------------------------");
    return logPath;
}

} // namespace OrvaneInternal
