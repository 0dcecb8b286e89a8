// The process-wide logger. Every part of the library logs through
// Logger::Get(), which never yields an empty pointer: a logger that discards
// everything stands in until Init installs a real one. One QueueMessage call
// is one message; a real logger formats on the caller's thread and writes on
// its own (see SimpleLogger), so queueing never waits for the disk.
#pragma once

#include "sys/RefCntPtr.h"
#include "sys/Runnable.h"

#include <istream>
#include <string>

namespace OrvaneInternal {

class Logger : public Runnable {
  public:
    ~Logger() override = default;

    void Run() override = 0; // the writer loop
    virtual void QueueMessage(std::wistream& in) = 0;
    virtual void QueueMessage(std::istream& in) = 0;
    virtual void QueueMessage(const std::wstring& message) = 0;
    virtual void QueueMessage(const std::string& message) = 0;
    virtual void Flush() = 0;
    // Ends the writer loop once everything queued before this call is written.
    virtual void QueueStop() = 0;
    virtual const std::wstring& GetBaseFilePath() const = 0;

    // Around fork (see ServerAPI's fork hooks), on the forking thread:
    // BeforeFork holds the writer at a point where it owns nothing the child
    // needs; the parent then resumes as it was, and the child gets an empty
    // queue of its own, ready for a new writer (the parent's is not there).
    // Lines the parent had queued are written by the parent alone.
    // A logger without a writer thread has nothing to hold.
    virtual void BeforeFork() {}
    virtual void AfterForkInParent() {}
    virtual void AfterForkInChild() {}

    // Installs `logger` (a null one empties the slot). Meant for start-up,
    // before other threads log: the slot itself is not locked.
    static void Init(RefCntPtr<Logger> logger);
    // The installed logger, or else the one process-wide logger that discards
    // everything; never writes the slot, so it is safe on any thread.
    static RefCntPtr<Logger> Get();

  private:
    static RefCntPtr<Logger> s_instance;
};

} // namespace OrvaneInternal
