// The logger's file: choosing the name, opening and locking it, starting a
// large one afresh. Two processes never share a file: the lock is held for as
// long as the file is in use, and a taken name falls back to a numbered one.
#include "logging/SimpleLogger.h"

#include "logging/LogFileStream.h"
#include "sys/Errors.h"
#include "sys/Path.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <new>
#include <utility>

namespace OrvaneInternal {

namespace {

// A file of exactly this size is still appended to; one byte more and it is
// started afresh.
constexpr off_t kTruncateAbove = 1048576;

// The file is created (never truncated) before the lock is taken and only
// cut once the lock is ours, so a log that another process is writing is
// never touched. A link at the name is refused like a locked file: in a
// shared directory another user could point it at a file of ours. So is
// anything but a regular file, checked on the descriptor itself: a named pipe
// would hang the open until someone reads it, and then hand that reader the
// log. Nothing is opened in blocking mode for the same reason. The log holds
// user names and server replies, so a new one is the owner's alone.
// Returns the write descriptor and sets `lockFile`, or returns -1.
int OpenLocked(const std::string& native, FILE*& lockFile)
{
    const int fd = ::open(native.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600);
    if (fd < 0)
        return -1;
    // The lock lives on a read handle of its own, close-on-exec so that
    // programs the host starts do not hold the lock after we let go. It must
    // be the same file: the name may have been replaced since the first open.
    const int lockFd = ::open(native.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    lockFile = lockFd < 0 ? nullptr : ::fdopen(lockFd, "r");
    struct stat written {};
    struct stat locked {};
    const bool sameRegularFile = lockFile && ::fstat(fd, &written) == 0 && S_ISREG(written.st_mode) &&
                                 ::fstat(lockFd, &locked) == 0 && written.st_dev == locked.st_dev &&
                                 written.st_ino == locked.st_ino;
    // On a regular file O_NONBLOCK changes nothing; it is cleared all the same
    // so that the stream sees an ordinary descriptor.
    if (sameRegularFile && ::flock(lockFd, LOCK_EX | LOCK_NB) == 0 && ::fcntl(fd, F_SETFL, O_APPEND) == 0)
        return fd;
    if (lockFile)
        std::fclose(lockFile);
    else if (lockFd >= 0)
        ::close(lockFd);
    ::close(fd);
    return -1;
}

} // namespace

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
        return false; // a name that is not valid text names no file
    }
    FILE* lockFile = nullptr;
    const int fd = OpenLocked(native, lockFile);
    if (fd < 0)
        return false;

    struct stat st {};
    if (::fstat(fd, &st) == 0 && st.st_size > kTruncateAbove && ::ftruncate(fd, 0) != 0) {
        // Could not start afresh: appending to the large file beats having no log.
    }

    std::unique_ptr<std::ostream> stream;
    try {
        stream.reset(new (std::nothrow) LogFileStream(fd));
    } catch (...) {
        std::fclose(lockFile);
        if (IsThreadUnwinding())
            throw;    // a cancelled thread must end
        return false; // the half-built stream closed the descriptor it had taken
    }
    if (!stream)
        ::close(fd);
    if (!stream || !stream->good()) {
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
    m_filePath = name;
    return true;
}

} // namespace OrvaneInternal
