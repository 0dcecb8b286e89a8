// The logger's queue and writer: callers format and push, the writer pops,
// rotates when it is time, and writes. Opening the file is in
// SimpleLoggerFile.cpp.
#include "logging/SimpleLogger.h"

#include "logging/LineHeader.h"
#include "logging/LogLines.h"
#include "logging/LogListener.h"
#include "logging/ThreadId.h"
#include "sys/Errors.h"
#include "sys/Unicode.h"

#include <iterator>
#include <thread>
#include <utility>
#include <vector>

namespace OrvaneInternal {

bool SimpleLogger::s_utc = false;

namespace {

template <class Char> std::basic_string<Char> ReadRest(std::basic_istream<Char>& in)
{
    std::basic_string<Char> text;
    if (in)
        text.assign(std::istreambuf_iterator<Char>(in), std::istreambuf_iterator<Char>());
    return text;
}

} // namespace

SimpleLogger::SimpleLogger(const std::wstring& path, unsigned int rotateSeconds)
    : m_queue(new LineQueue()), m_rotateSeconds(rotateSeconds), m_baseFilePath(path)
{
    if (!Open(path))
        throw QRX_InvalidArgument(QRX_Status::InvalidArgument, "SimpleLogger constructor failed. Couldn't open: '" +
                                                                   Unicode::ToUTF8Lossy(path) + "'");
    if (m_rotateSeconds != 0)
        m_rotateTimer.Start();
}

SimpleLogger::~SimpleLogger()
{
    std::wstring* text = nullptr;
    while (m_queue->try_pop(text))
        delete text;
    m_stream.reset(); // flush and close before the lock goes
    if (m_lockFile)
        std::fclose(m_lockFile);
}

std::string SimpleLogger::FormatHeader(const datetime& time, unsigned long threadId)
{
    return std::string(LineHeader(time, threadId).View());
}

std::wstring SimpleLogger::FormatHeaderW(const datetime& time, unsigned long threadId)
{
    const LineHeader header(time, threadId);
    return std::wstring(header.View().begin(), header.View().end()); // the header is ASCII
}

datetime SimpleLogger::GetTimestamp()
{
    return s_utc ? datetime::utc() : datetime::now();
}

// Counts a thread in while it formats and pushes, unless a fork is being
// prepared: then it waits for the fork to be done first.
class SimpleLogger::QueueingScope {
  public:
    explicit QueueingScope(SimpleLogger& logger) : m_logger(logger)
    {
        for (;;) {
            m_logger.m_queueing.fetch_add(1);
            if (!m_logger.m_forking.load())
                return;
            m_logger.m_queueing.fetch_sub(1);
            while (m_logger.m_forking.load())
                std::this_thread::yield();
        }
    }
    ~QueueingScope() { m_logger.m_queueing.fetch_sub(1); }
    QueueingScope(const QueueingScope&) = delete;
    QueueingScope& operator=(const QueueingScope&) = delete;

  private:
    SimpleLogger& m_logger;
};

template <class Text> void SimpleLogger::Queue(const Text& message)
{
    const QueueingScope scope(*this);
    try {
        Push(LinesOf(LineHeader(GetTimestamp(), CurrentThreadId()).View(), message));
    } catch (...) {
        if (IsThreadUnwinding())
            throw; // a cancelled thread must end
        // Only allocation can fail here; the message is dropped, the caller goes on.
    }
}

void SimpleLogger::QueueMessage(const std::wstring& message)
{
    Queue(message);
}
void SimpleLogger::QueueMessage(const std::string& message)
{
    Queue(message);
}

void SimpleLogger::QueueMessage(std::wistream& in)
{
    try {
        QueueMessage(ReadRest(in));
    } catch (...) {
        if (IsThreadUnwinding())
            throw; // a cancelled thread must end
        // A failing stream or allocation drops the message, never the caller.
    }
}

void SimpleLogger::QueueMessage(std::istream& in)
{
    try {
        QueueMessage(ReadRest(in));
    } catch (...) {
        if (IsThreadUnwinding())
            throw; // a cancelled thread must end
        // A failing stream or allocation drops the message, never the caller.
    }
}

void SimpleLogger::Push(std::wstring text)
{
    std::unique_ptr<std::wstring> entry(new std::wstring(std::move(text)));
    m_queue->push(entry.get());
    entry.release(); // the queue owns it now
}

void SimpleLogger::QueueStop()
{
    try {
        m_queue->push(nullptr);
    } catch (...) {
        if (IsThreadUnwinding())
            throw; // a cancelled thread must end
        // Cannot happen with an unbounded queue of pointers short of memory
        // exhaustion; then the writer runs on, which is the lesser harm.
    }
}

// No thread may be inside Queue at the fork: it may hold locks that the child
// would find taken for ever, the C library's time-zone lock among them.
void SimpleLogger::BeforeFork()
{
    m_forking.store(true);
    while (m_queueing.load() != 0)
        std::this_thread::yield();
    m_streamMutex.lock();
}

void SimpleLogger::AfterForkInParent()
{
    m_streamMutex.unlock();
    m_forking.store(false);
}

void SimpleLogger::AfterForkInChild()
{
    m_streamMutex.unlock(); // taken by this very thread in BeforeFork
    m_forking.store(false);
    // Another thread of the parent may have been inside a push, and the
    // parent's writer may be waiting in a pop: the copy cannot be trusted, nor
    // freed. It stays reachable so that leak checkers see it as kept.
    static std::vector<LineQueue*>* const abandoned = new std::vector<LineQueue*>();
    abandoned->push_back(m_queue.release());
    m_queue.reset(new LineQueue());
}

void SimpleLogger::Flush()
{
    std::lock_guard<std::mutex> lock(m_streamMutex);
    if (m_stream)
        m_stream->flush();
}

void SimpleLogger::Run()
{
    for (;;) {
        std::wstring* entry = nullptr;
        m_queue->pop(entry);
        if (!entry)
            return;
        std::unique_ptr<std::wstring> text(entry);
        try {
            RotateCheck();
            if (!text->empty())
                Write(BytesOf(*text));
        } catch (...) {
            if (IsThreadUnwinding())
                throw; // a cancelled thread must end
            // Losing one message is better than losing the writer, or the host.
        }
    }
}

void SimpleLogger::Write(const std::string& bytes)
{
    {
        std::lock_guard<std::mutex> lock(m_streamMutex);
        // Write errors are not reported anywhere; clearing them lets the log
        // resume once, say, the disk has room again.
        m_stream->clear();
        m_stream->write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        m_stream->flush();
    }
    LogListener::Deliver(bytes); // without the lock: a slow host never holds up Flush
}

void SimpleLogger::RotateCheck()
{
    if (m_rotateSeconds == 0 || m_rotateTimer.ElapsedSeconds() <= m_rotateSeconds)
        return;
    const unsigned long threadId = CurrentThreadId();
    Write(FormatHeader(GetTimestamp(), threadId) + "logfile_rotation: closing this log\n");
    // When no new file can be taken the old one stays in use, and the next
    // line says so by appearing in it.
    Open(m_baseFilePath);
    Write(FormatHeader(GetTimestamp(), threadId) + "logfile_rotation: opening new log\n");
    m_rotateTimer.Reset();
}

} // namespace OrvaneInternal
