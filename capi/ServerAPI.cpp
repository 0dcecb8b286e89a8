#include "capi/ServerAPI.h"

#include "logging/InitializeLogger.h"
#include "logging/Logger.h"
#include "server/ServerConnection.h"
#include "sys/OS.h"
#include "sys/RefCntPtr.h"
#include "sys/Thread.h"

#include <cstdlib>

namespace OrvaneInternal {

namespace {

bool initialized = false;
// The writer of the installed file logger. After Cleanup it keeps its ended
// thread; the next start-up replaces it.
RefCntPtr<Thread> loggerThread;
long writerProcess = 0; // the process that started loggerThread
bool exitHookRegistered = false;

// Releasing a writer that still runs would join a thread that waits for lines
// forever, so a host that exits without Cleanup would hang. Registered after
// this unit's statics and the logger slot exist, it runs before either is
// destroyed, and drains the log as Cleanup would.
void StopWriterAtExit()
{
    if (!loggerThread || !loggerThread->Joinable())
        return;
    if (OS::getpid() != writerProcess) {
        // A forked child copied the Thread but not its thread: never join it,
        // and keep the copy from joining in its destructor.
        loggerThread.get()->AddReference();
        return;
    }
    Logger::Get()->QueueStop();
    loggerThread->Join();
}

} // namespace

void ServerAPI::Initialize()
{
    if (initialized)
        return;
    InitializeLogger(loggerThread);
    writerProcess = OS::getpid();
    if (!exitHookRegistered)
        exitHookRegistered = std::atexit(StopWriterAtExit) == 0;
    ServerConnection::Init();
    initialized = true;
}

void ServerAPI::Cleanup()
{
    if (!initialized)
        return;
    ServerConnection::Cleanup();
    RefCntPtr<Logger> logger = Logger::Get();
    logger->QueueStop();
    if (loggerThread)
        loggerThread->Join();
    else
        logger->Run(); // no writer of its own: drain on this thread, so Cleanup still leaves nothing unwritten
    initialized = false;
}

} // namespace OrvaneInternal
