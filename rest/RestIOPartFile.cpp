#include "rest/RestIOPartFile.h"

#include "rest/RestIO.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>

namespace OrvaneInternal {

RestIOPartFile::RestIOPartFile(const std::string& path) : m_path(path), m_done(false), m_size(0)
{
    OpenFile();
}

RestIOPartFile::~RestIOPartFile()
{
    ::close(m_fd);
}

void RestIOPartFile::OpenFile()
{
    // Non-blocking, so that a pipe put in the file's place since the caller
    // checked it cannot stop the open; only a regular file is read, and its
    // reads block as usual.
    m_fd = ::open(m_path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    struct stat st {};
    if (m_fd < 0 || ::fstat(m_fd, &st) != 0 || !S_ISREG(st.st_mode) ||
        ::fcntl(m_fd, F_SETFL, ::fcntl(m_fd, F_GETFL) & ~O_NONBLOCK) != 0) {
        if (m_fd >= 0)
            ::close(m_fd);
        throw RestIO::RestIOException("Failed to open file: " + m_path);
    }
    m_size = static_cast<size_t>(st.st_size);
}

size_t RestIOPartFile::Read(char* buffer, size_t size)
{
    // Exactly the size measured at construction goes out, which is what the
    // request announced: a file that has grown since is cut there, one that
    // has shrunk is a read failure.
    const size_t left = m_size - std::min(m_offset, m_size);
    const size_t want = std::min(size, left);
    size_t n = 0;
    while (n < want) {
        const ssize_t got = ::read(m_fd, buffer + n, want - n);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            break;
        n += static_cast<size_t>(got);
    }
    m_offset += n;
    if (n < want)
        throw RestIO::RestIOException("Failed to read from file: " + m_path);
    // Asking for more than is left is reaching the end, as a read past the
    // end of the file would be.
    if (size > left)
        m_done = true;
    return want;
}

bool RestIOPartFile::Seek(size_t position)
{
    m_done = false;
    m_offset = position;
    // Offsets beyond the signed range are refused.
    if (position > static_cast<size_t>(std::numeric_limits<off_t>::max()))
        return false;
    return ::lseek(m_fd, static_cast<off_t>(position), SEEK_SET) >= 0;
}

bool RestIOPartFile::gmock_equal(const RestIOPart& other, const std::string&, const std::string&) const
{
    const auto* file = dynamic_cast<const RestIOPartFile*>(&other);
    return file != nullptr && file->m_path == m_path;
}

} // namespace OrvaneInternal
