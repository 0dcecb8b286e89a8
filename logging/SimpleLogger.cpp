#include "logging/SimpleLogger.h"

#include "sys/Errors.h"
#include "sys/Path.h"
#include "sys/Unicode.h"

#include <ext/stdio_filebuf.h>

#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <iterator>
#include <new>
#include <string_view>
#include <utility>

namespace OrvaneInternal {

bool SimpleLogger::s_utc = false;

namespace {

// A file of exactly this size is still appended to; one byte more and it is
// started afresh.
constexpr off_t kTruncateAbove = 1048576;

// The log file's own stream. It writes through a descriptor opened
// close-on-exec, which std::ofstream cannot do, so that programs the host
// starts do not keep the log open.
class LogFileStream : public std::ostream {
public:
    // Takes ownership of `fd`.
    explicit LogFileStream(int fd) : std::ostream(nullptr), m_buffer(fd, std::ios_base::out | std::ios_base::app)
    {
        if (m_buffer.is_open())
            rdbuf(&m_buffer);
        else
            ::close(fd);  // rdbuf stays null, so the stream reports bad
    }

private:
    __gnu_cxx::stdio_filebuf<char> m_buffer;
};

// Bumped in the child after fork, so that a thread's cached id is refreshed
// there: the forking thread carries on in the child under a new id.
std::atomic<unsigned> forkGeneration{0};
const int atforkRegistered = ::pthread_atfork(nullptr, nullptr, [] { ++forkGeneration; });

// The OS thread id rather than std::thread::id, so that a header can be matched
// with the threads that top -H and ps -L show. Cached per thread: gettid is a
// system call and this is on every caller's path.
unsigned long CurrentThreadId()
{
    thread_local unsigned generation = ~0u;
    thread_local unsigned long id = 0;
    const unsigned current = forkGeneration.load(std::memory_order_relaxed);
    if (generation != current) {
        id = static_cast<unsigned long>(::gettid());
        generation = current;
    }
    return id;
}

// Room for any header FormatHeader can be given: seven int fields of up to 11
// characters each, a 20-digit thread id and 11 characters of punctuation.
constexpr std::size_t kHeaderCapacity = 112;

// Decimal, left-padded with zeros to `width`; like "%0*lu" without the cost of
// printf on every caller's path.
char* PutNumber(char* out, unsigned long value, int width)
{
    char digits[20];
    int count = 0;
    do {
        digits[count++] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    while (count < width)
        digits[count++] = '0';
    while (count > 0)
        *out++ = digits[--count];
    return out;
}

// Writes the header into `out` (kHeaderCapacity chars) and returns its length.
std::size_t FormatHeaderTo(char* out, const datetime& time, unsigned long threadId)
{
    const int fields[] = {time.year, time.month, time.day, time.hour, time.minute, time.second, time.millisecond};
    for (int field : fields) {
        if (field < 0) {
            // Not a time the clock gives; printf shows it as it is.
            const int length = std::snprintf(out, kHeaderCapacity, "%d-%02d-%02d %02d:%02d:%02d.%03d (%04lu): ",
                                             time.year, time.month, time.day, time.hour, time.minute, time.second,
                                             time.millisecond, threadId);
            return length > 0 ? std::min(static_cast<std::size_t>(length), kHeaderCapacity - 1) : 0;
        }
    }
    char* p = out;
    p = PutNumber(p, static_cast<unsigned long>(time.year), 1);
    *p++ = '-';
    p = PutNumber(p, static_cast<unsigned long>(time.month), 2);
    *p++ = '-';
    p = PutNumber(p, static_cast<unsigned long>(time.day), 2);
    *p++ = ' ';
    p = PutNumber(p, static_cast<unsigned long>(time.hour), 2);
    *p++ = ':';
    p = PutNumber(p, static_cast<unsigned long>(time.minute), 2);
    *p++ = ':';
    p = PutNumber(p, static_cast<unsigned long>(time.second), 2);
    *p++ = '.';
    p = PutNumber(p, static_cast<unsigned long>(time.millisecond), 3);
    *p++ = ' ';
    *p++ = '(';
    p = PutNumber(p, threadId, 4);
    *p++ = ')';
    *p++ = ':';
    *p++ = ' ';
    return static_cast<std::size_t>(p - out);
}

// A header formatted once per message, on the caller's thread.
struct Header {
    Header() : length(FormatHeaderTo(text, SimpleLogger::GetTimestamp(), CurrentThreadId())) {}
    char text[kHeaderCapacity];
    std::size_t length;
};

bool IsScalarValue(wchar_t unit)
{
    const int32_t value = static_cast<int32_t>(unit);
    return (value >= 0 && value < 0xD800) || (value > 0xDFFF && value <= 0x10FFFF);
}

// UTF-8 for text that may hold units no converter accepts. A unit in
// -128..-1 is a byte that a narrow message carried outside UTF-8 (see
// WidenBytes) and goes back to the file as that byte, so such a line reaches
// the file exactly as it was logged; any other unit that is not a Unicode
// scalar value becomes U+FFFD. Never throws a conversion error.
std::string EncodeUtf8Lossy(std::wstring_view text)
{
    std::string out;
    out.reserve(text.size());
    Unicode::ToUTF8 convert;
    std::size_t runStart = 0;
    auto flushRun = [&](std::size_t end) {
        if (end > runStart)
            out += convert(std::wstring(text.substr(runStart, end - runStart)));
    };
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (IsScalarValue(text[i]))
            continue;
        flushRun(i);
        runStart = i + 1;
        const int32_t value = static_cast<int32_t>(text[i]);
        if (value >= -128 && value < 0)
            out += static_cast<char>(value);
        else
            out += "\xEF\xBF\xBD";
    }
    flushRun(text.size());
    return out;
}

std::string EncodeUtf8(const std::wstring& text)
{
    if (std::all_of(text.begin(), text.end(), [](wchar_t c) { return c >= 0 && c < 0x80; }))
        return std::string(text.begin(), text.end());  // most log text; no converter needed
    try {
        return Unicode::ToUTF8(text).str();
    } catch (const QRX_RuntimeError&) {
        return EncodeUtf8Lossy(text);
    }
}

// Byte-for-byte widening of a line that is not UTF-8. Each byte is taken as a
// signed char, so bytes from 0x80 up become negative units; EncodeUtf8Lossy
// recognises them and restores the bytes.
std::wstring WidenBytes(std::string_view line)
{
    std::wstring out;
    out.reserve(line.size());
    for (char c : line)
        out += static_cast<wchar_t>(static_cast<signed char>(c));
    return out;
}

bool IsAscii(std::string_view text)
{
    for (char c : text) {
        if (static_cast<unsigned char>(c) >= 0x80)
            return false;
    }
    return true;
}

// Calls `emit(line)` for every line of `text`, split at "\n"; a final newline
// does not start another (empty) line, and an empty text has no lines.
template <class Char, class Emit>
void ForEachLine(std::basic_string_view<Char> text, Emit emit)
{
    std::size_t start = 0;
    while (start < text.size()) {
        const std::size_t newline = text.find(Char('\n'), start);
        if (newline == std::basic_string_view<Char>::npos) {
            emit(text.substr(start));
            return;
        }
        emit(text.substr(start, newline - start));
        start = newline + 1;
    }
}

// Widens in place: appending from a range of another character type would
// first build a temporary wide string, one more allocation per line.
template <class Char>
void AppendWidened(std::wstring& out, std::basic_string_view<Char> text)
{
    const std::size_t at = out.size();
    out.resize(at + text.size());
    std::copy(text.begin(), text.end(), out.begin() + static_cast<std::ptrdiff_t>(at));
}

// Appends header, line and newline for every line of `text`; narrow text
// must be ASCII here and is widened unit by unit.
template <class Char>
void AppendLines(std::wstring& out, const Header& header, std::basic_string_view<Char> text)
{
    ForEachLine<Char>(text, [&](std::basic_string_view<Char> line) {
        AppendWidened<char>(out, std::string_view(header.text, header.length));
        AppendWidened<Char>(out, line);
        out += L'\n';
    });
}

template <class Char>
std::basic_string<Char> ReadRest(std::basic_istream<Char>& in)
{
    std::basic_string<Char> text;
    if (in)
        text.assign(std::istreambuf_iterator<Char>(in), std::istreambuf_iterator<Char>());
    return text;
}

}  // namespace

SimpleLogger::SimpleLogger(const std::wstring& path, unsigned int rotateSeconds)
    : m_rotateSeconds(rotateSeconds), m_baseFilePath(path)
{
    if (!Open(path))
        throw QRX_InvalidArgument(QRX_Status::InvalidArgument,
                                  "SimpleLogger constructor failed. Couldn't open: '" + EncodeUtf8(path) + "'");
    if (m_rotateSeconds != 0)
        m_rotateTimer.Start();
}

SimpleLogger::~SimpleLogger()
{
    std::wstring* text = nullptr;
    while (m_queue.try_pop(text))
        delete text;
    m_stream.reset();  // flush and close before the lock goes
    if (m_lockFile)
        std::fclose(m_lockFile);
}

std::string SimpleLogger::FormatHeader(const datetime& time, unsigned long threadId)
{
    char buffer[kHeaderCapacity];
    return std::string(buffer, FormatHeaderTo(buffer, time, threadId));
}

std::wstring SimpleLogger::FormatHeaderW(const datetime& time, unsigned long threadId)
{
    char buffer[kHeaderCapacity];
    return std::wstring(buffer, buffer + FormatHeaderTo(buffer, time, threadId));  // the header is ASCII
}

datetime SimpleLogger::GetTimestamp()
{
    return s_utc ? datetime::utc() : datetime::now();
}

void SimpleLogger::QueueMessage(const std::wstring& message)
{
    try {
        const Header header;
        std::wstring text;
        text.reserve(header.length + message.size() + 1);
        AppendLines<wchar_t>(text, header, message);
        Push(std::move(text));
    } catch (...) {
        // Only allocation can fail here; the message is dropped, the caller goes on.
    }
}

void SimpleLogger::QueueMessage(const std::string& message)
{
    try {
        const Header header;
        std::wstring text;
        text.reserve(header.length + message.size() + 1);
        if (IsAscii(message)) {
            AppendLines<char>(text, header, message);
        } else {
            // Converting the whole message at once is the common case; only a
            // message with a line that is not UTF-8 is converted line by line,
            // so that its good lines still come out as text.
            try {
                AppendLines<wchar_t>(text, header, Unicode::ToWideChar(message).str());
            } catch (const QRX_RuntimeError&) {
                text.clear();
                Unicode::ToWideChar convert;
                ForEachLine<char>(message, [&](std::string_view line) {
                    AppendWidened<char>(text, std::string_view(header.text, header.length));
                    try {
                        text += convert(line.data(), line.size());
                    } catch (const QRX_RuntimeError&) {
                        text += WidenBytes(line);
                    }
                    text += L'\n';
                });
            }
        }
        Push(std::move(text));
    } catch (...) {
        // Only allocation can fail here; the message is dropped, the caller goes on.
    }
}

void SimpleLogger::QueueMessage(std::wistream& in)
{
    try {
        QueueMessage(ReadRest(in));
    } catch (...) {
        // A failing stream or allocation drops the message, never the caller.
    }
}

void SimpleLogger::QueueMessage(std::istream& in)
{
    try {
        QueueMessage(ReadRest(in));
    } catch (...) {
        // A failing stream or allocation drops the message, never the caller.
    }
}

void SimpleLogger::Push(std::wstring text)
{
    std::unique_ptr<std::wstring> entry(new std::wstring(std::move(text)));
    m_queue.push(entry.get());
    entry.release();  // the queue owns it now
}

void SimpleLogger::QueueStop()
{
    try {
        m_queue.push(nullptr);
    } catch (...) {
        // Cannot happen with an unbounded queue of pointers short of memory
        // exhaustion; then the writer runs on, which is the lesser harm.
    }
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
        m_queue.pop(entry);
        if (!entry)
            return;
        std::unique_ptr<std::wstring> text(entry);
        try {
            RotateCheck();
            Write(*text);
        } catch (...) {
            // Losing one message is better than losing the writer, or the host.
        }
    }
}

void SimpleLogger::Write(const std::wstring& text)
{
    if (text.empty())
        return;
    const std::string bytes = EncodeUtf8(text);
    std::lock_guard<std::mutex> lock(m_streamMutex);
    // Write errors are not reported anywhere; clearing them lets the log
    // resume once, say, the disk has room again.
    m_stream->clear();
    m_stream->write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    m_stream->flush();
}

void SimpleLogger::WriteLine(const std::string& header, const char* text)
{
    std::lock_guard<std::mutex> lock(m_streamMutex);
    m_stream->clear();
    *m_stream << header << text << '\n';
    m_stream->flush();
}

void SimpleLogger::RotateCheck()
{
    if (m_rotateSeconds == 0 || m_rotateTimer.ElapsedSeconds() <= m_rotateSeconds)
        return;
    const unsigned long threadId = CurrentThreadId();
    WriteLine(FormatHeader(GetTimestamp(), threadId), "logfile_rotation: closing this log");
    // When no new file can be taken the old one stays in use, and the next
    // line says so by appearing in it.
    Open(m_baseFilePath);
    WriteLine(FormatHeader(GetTimestamp(), threadId), "logfile_rotation: opening new log");
    m_rotateTimer.Reset();
}

bool SimpleLogger::Open(const std::wstring& path)
{
    if (m_rotateSeconds == 0)
        return OpenUniqueName(path);
    const std::pair<std::wstring, std::wstring> parts = Path::splitext(path);
    const datetime now = GetTimestamp();
    const std::wstring name = parts.first + L"_" + std::to_wstring(now.year) + L"_" + std::to_wstring(now.month) +
                              L"_" + std::to_wstring(now.day) + L"_" + std::to_wstring(now.hour) + L"_" +
                              std::to_wstring(now.minute) + L"_" + std::to_wstring(now.second) + parts.second;
    return OpenUniqueName(name);
}

bool SimpleLogger::OpenUniqueName(const std::wstring& name)
{
    if (OpenMaybeTruncate(name))
        return true;
    const std::pair<std::wstring, std::wstring> parts = Path::splitext(name);
    for (int n = 1; n <= 9; ++n) {
        if (OpenMaybeTruncate(parts.first + L"_" + std::to_wstring(n) + parts.second))
            return true;
    }
    return false;
}

bool SimpleLogger::OpenMaybeTruncate(const std::wstring& name)
{
    std::string native;
    try {
        native = Path::native(name);
    } catch (const QRX_RuntimeError&) {
        return false;  // a name that is not valid text names no file
    }

    // The file is created (never truncated) before the lock is taken and only
    // cut once the lock is ours, so a log that another process is writing is
    // never touched. A link at the name is refused like a locked file: in a
    // shared directory another user could point it at a file of ours. The log
    // holds user names and server replies, so a new one is the owner's alone.
    const int fd = ::open(native.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0)
        return false;
    // The lock lives on a read handle of its own, close-on-exec so that
    // programs the host starts do not hold the lock after we let go. It must
    // be the same file: the name may have been replaced since the first open.
    const int lockFd = ::open(native.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    FILE* lockFile = lockFd < 0 ? nullptr : ::fdopen(lockFd, "r");
    struct stat written {}, locked {};
    if (!lockFile || ::fstat(fd, &written) != 0 || ::fstat(lockFd, &locked) != 0 ||
        written.st_dev != locked.st_dev || written.st_ino != locked.st_ino ||
        ::flock(lockFd, LOCK_EX | LOCK_NB) != 0) {
        if (lockFile)
            std::fclose(lockFile);
        else if (lockFd >= 0)
            ::close(lockFd);
        ::close(fd);
        return false;
    }

    struct stat st {};
    if (::fstat(fd, &st) == 0 && st.st_size > kTruncateAbove && ::ftruncate(fd, 0) != 0) {
        // Could not start afresh: appending to the large file beats having no log.
    }

    std::unique_ptr<std::ostream> stream;
    try {
        stream.reset(new (std::nothrow) LogFileStream(fd));
    } catch (...) {
        std::fclose(lockFile);
        return false;  // the half-built stream closed the descriptor it had taken
    }
    if (!stream) {
        ::close(fd);
        std::fclose(lockFile);
        return false;
    }
    if (!stream->good()) {
        std::fclose(lockFile);
        return false;
    }

    {
        std::lock_guard<std::mutex> lock(m_streamMutex);
        m_stream.swap(stream);
    }
    if (m_lockFile)
        std::fclose(m_lockFile);
    m_lockFile = lockFile;
    return true;
}

}  // namespace OrvaneInternal
