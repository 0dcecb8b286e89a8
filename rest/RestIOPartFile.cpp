#include "rest/RestIOPartFile.h"

#include "rest/RestIO.h"

#include <algorithm>

namespace OrvaneInternal {

RestIOPartFile::RestIOPartFile(const std::string& path) : m_path(path), m_done(false), m_size(0)
{
    OpenFile();
    // The open already positioned the stream at the end, so neither step is
    // expected to fail; if one does, the part is as unusable as an unopened file.
    const std::streamoff end = m_stream.tellg();
    if (end < 0 || !m_stream.seekg(0)) {
        throw RestIO::RestIOException("Failed to open file: " + m_path);
    }
    m_size = static_cast<size_t>(end);
}

void RestIOPartFile::OpenFile()
{
    m_stream.open(m_path, std::ios::in | std::ios::binary | std::ios::ate);
    if (!m_stream.is_open()) {
        throw RestIO::RestIOException("Failed to open file: " + m_path);
    }
}

size_t RestIOPartFile::Read(char* buffer, size_t size)
{
    // Exactly the size measured at construction goes out, which is what the
    // request announced: a file that has grown since is cut there, one that
    // has shrunk is a read failure.
    const size_t left = m_size - std::min(m_offset, m_size);
    const size_t want = std::min(size, left);
    if (want != 0) {
        m_stream.read(buffer, static_cast<std::streamsize>(want));
        const size_t n = static_cast<size_t>(m_stream.gcount());
        m_offset += n;
        if (n < want) {
            throw RestIO::RestIOException("Failed to read from file: " + m_path);
        }
    }
    // Asking for more than is left is reaching the end, as a read past the
    // end of the file would be.
    if (size > left) {
        m_done = true;
    }
    return want;
}

bool RestIOPartFile::Seek(size_t position)
{
    m_stream.clear();
    // Offsets beyond the signed range become negative and are refused.
    m_stream.seekg(static_cast<std::streamoff>(position));
    m_done = false;
    m_offset = position;
    return !m_stream.fail();
}

bool RestIOPartFile::gmock_equal(const RestIOPart& other, const std::string&, const std::string&) const
{
    const auto* file = dynamic_cast<const RestIOPartFile*>(&other);
    return file != nullptr && file->m_path == m_path;
}

}  // namespace OrvaneInternal
