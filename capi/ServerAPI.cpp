#include "capi/ServerAPI.h"

#include "logging/InitializeLogger.h"
#include "logging/LogListener.h"
#include "logging/Logger.h"
#include "server/ServerConnection.h"
#include "sys/Errors.h"
#include "sys/RefCntPtr.h"
#include "sys/Thread.h"

#include <pthread.h>

#include <cstdlib>
#include <mutex>
#include <vector>

namespace OrvaneInternal {

namespace {

bool initialized = false;
// The writer of the installed file logger. After Cleanup it keeps its ended
// thread; the next start-up replaces it.
RefCntPtr<Thread> loggerThread;
bool hooksRegistered = false;
std::wstring logDirectory; // empty: the default rule
bool noLog = false;        // the host asked for no log file
std::string logPath;
// The logger that BeforeFork quiesced, for the handler that follows it.
RefCntPtr<Logger> forkingLogger;
// Held from BeforeFork to the handler after the fork: two threads forking at
// once would otherwise share forkingLogger, and the first to finish would take
// it from under the second.
std::mutex forkMutex;

// Releasing a writer that still runs would join a thread that waits for lines
// forever, so a host that exits without Cleanup would hang. Registered after
// this unit's statics and the logger slot exist, it runs before either is
// destroyed, and drains the log as Cleanup would.
void StopWriterAtExit()
{
    if (!loggerThread || !loggerThread->Joinable())
        return;
    Logger::Get()->QueueStop();
    loggerThread->Join();
}

// A host may fork at any time, from any thread, while other threads log: the
// writer is held still across the fork so that the parent's log goes on as if
// nothing happened, and a child gets a queue of its own and, once it logs, a
// writer of its own (Logger::RequestWriter), so that it can log and start
// sessions like any process, while a child that only execs starts no thread.
// Nothing here throws short of running out of memory or threads; a child
// that cannot start a writer drains its log on the thread that calls Cleanup.
void BeforeFork()
{
    forkMutex.lock();
    forkingLogger = Logger::Get();
    forkingLogger->BeforeFork();
}

void AfterForkInParent()
{
    forkingLogger->AfterForkInParent();
    forkingLogger.reset();
    forkMutex.unlock();
}

void AfterForkInChild()
{
    forkingLogger->AfterForkInChild();
    forkingLogger.reset();
    forkMutex.unlock(); // taken by this very thread in BeforeFork
    LogListener::AfterForkInChild();
    if (!loggerThread || !loggerThread->Joinable())
        return; // no writer was running: Initialize or Cleanup will do as usual
    // The copied Thread names the parent's writer, which does not exist here:
    // it must never be joined, so it is kept rather than released.
    try {
        static std::vector<RefCntPtr<Thread>>* const abandoned = new std::vector<RefCntPtr<Thread>>();
        abandoned->push_back(loggerThread);
    } catch (...) {
        intrusive_ptr_add_ref(loggerThread.get()); // never released then, which is all that matters
    }
    loggerThread.reset();
    Logger::RequestWriter();
}

void StartWriterAfterFork()
{
    try {
        RefCntPtr<Thread> writer(new Thread(RefCntPtr<Runnable>(Logger::Get())));
        writer->Start();
        loggerThread = writer;
    } catch (...) {
        if (IsThreadUnwinding())
            throw; // a cancelled thread must end
    }
}

} // namespace

void ServerAPI::Initialize()
{
    if (initialized)
        return;
    std::string path;
    if (noLog)
        InitializeWithoutLog(loggerThread);
    else
        path = InitializeLogger(loggerThread, logDirectory);
    if (!hooksRegistered) {
        hooksRegistered = true;
        // Either fails only without memory, and then the library runs on
        // without that hook.
        std::atexit(StopWriterAtExit);
        ::pthread_atfork(BeforeFork, AfterForkInParent, AfterForkInChild);
        Logger::SetWriterStarter(StartWriterAfterFork);
    }
    ServerConnection::Init();
    logPath.swap(path);
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
    logPath.clear();
}

void ServerAPI::SetLogDirectory(const std::wstring& directory)
{
    logDirectory = directory;
    noLog = false;
}

void ServerAPI::SetNoLog()
{
    logDirectory.clear();
    noLog = true;
}

const std::string& ServerAPI::LogPath()
{
    return logPath;
}

} // namespace OrvaneInternal
