// The library's file logger. Callers on any thread queue finished text; one
// writer thread (Run) appends it to the log file and flushes after every
// message, so callers never wait for the disk and the log survives a crash.
//
// The file is held under an exclusive flock for as long as it is in use, so two
// processes never share a file: a taken name falls back to base_1 ... base_9.
// A link at a name is passed over like a taken one, and a new file is made
// mode 0600. A file already larger than 1 MiB is started afresh when it is taken. With a
// non-zero interval the logger moves on to a new, time-stamped file once the
// interval has passed.
//
// Every line written is also handed to the host's listener (see LogListener).
//
// Nothing the log does may stop the host: the writer swallows its own failures,
// a queueing call that cannot allocate drops its message, and text that is not
// valid Unicode is written as closely as it can be rather than dropped. Only
// the unwinding of a cancelled thread passes through, so that it can end.
#pragma once

#include "logging/Logger.h"
#include "sys/Timer.h"
#include "sys/datetime.h"

#include <tbb/concurrent_queue.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <istream>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>

namespace OrvaneInternal {

class SimpleLogger : public Logger {
  public:
    // Takes the file at once; throws QRX_InvalidArgument (40463) when neither
    // `path` nor any of its numbered siblings can be opened and locked.
    SimpleLogger(const std::wstring& path, unsigned int rotateSeconds);
    // Frees the messages that were queued after the stop signal and releases
    // the file and its lock.
    ~SimpleLogger() override;

    // The writer loop: returns after popping the stop signal. Messages queued
    // after it stay unwritten until Run is called again.
    void Run() override;
    void QueueMessage(std::wistream& in) override;
    void QueueMessage(std::istream& in) override;
    void QueueMessage(const std::wstring& message) override;
    void QueueMessage(const std::string& message) override;
    void Flush() override;
    void QueueStop() override;
    const std::wstring& GetBaseFilePath() const override { return m_baseFilePath; }
    // The file in use: the base path or the numbered or time-stamped name
    // taken instead. For the writer's thread, or before the writer starts.
    const std::wstring& GetFilePath() const { return m_filePath; }
    void BeforeFork() override;
    void AfterForkInParent() override;
    void AfterForkInChild() override;

    // The line header (see LineHeader), narrow and widened.
    static std::string FormatHeader(const datetime& time, unsigned long threadId);
    static std::wstring FormatHeaderW(const datetime& time, unsigned long threadId);
    // Now, in UTC when s_utc is set, local time otherwise.
    static datetime GetTimestamp();

    // Nothing in the library sets it; it exists for hosts that want UTC logs.
    static bool s_utc;

  private:
    // The file side (SimpleLoggerFile.cpp): false when neither the name nor
    // any numbered sibling can be opened and locked.
    bool Open(const std::wstring& path);
    bool OpenUniqueName(const std::wstring& name);
    bool OpenMaybeTruncate(const std::wstring& name);

    template <class Text> void Queue(const Text& message);
    void Push(std::wstring text);
    void RotateCheck();
    void Write(const std::string& bytes);

    using LineQueue = tbb::concurrent_bounded_queue<std::wstring*>;

    std::unique_ptr<std::ostream> m_stream;
    // Owns its entries; null is the stop signal. Replaced in a forked child
    // (see AfterForkInChild), never otherwise.
    std::unique_ptr<LineQueue> m_queue;
    Timer m_rotateTimer;
    uint32_t m_rotateSeconds;
    FILE* m_lockFile = nullptr; // read handle that holds the flock on the current file
    std::wstring m_baseFilePath;
    std::wstring m_filePath;
    // Flush may come from another thread while the writer writes or replaces
    // the stream; BeforeFork holds it until the fork is done.
    std::mutex m_streamMutex;
    // Threads inside Queue, and a fork being prepared (see BeforeFork).
    class QueueingScope;
    std::atomic<int> m_queueing{0};
    std::atomic<bool> m_forking{false};
};

} // namespace OrvaneInternal
