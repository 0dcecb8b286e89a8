#include "rest/RestIOPartFile.h"

#include "rest/RestIO.h"

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
    // Requests larger than the stream's own buffer bypass it, so libcurl's
    // chunks are read by the system straight into `buffer`.
    m_stream.read(buffer, static_cast<std::streamsize>(size));
    const size_t n = static_cast<size_t>(m_stream.gcount());
    if (m_stream.eof()) {
        m_done = true;
        return n;
    }
    if (m_stream.fail()) {  // fail() covers bad() too
        throw RestIO::RestIOException("Failed to read from file: " + m_path);
    }
    return n;
}

bool RestIOPartFile::Seek(size_t position)
{
    m_stream.clear();
    // Offsets beyond the signed range become negative and are refused.
    m_stream.seekg(static_cast<std::streamoff>(position));
    m_done = false;
    return !m_stream.fail();
}

bool RestIOPartFile::gmock_equal(const RestIOPart& other, const std::string&, const std::string&) const
{
    const auto* file = dynamic_cast<const RestIOPartFile*>(&other);
    return file != nullptr && file->m_path == m_path;
}

}  // namespace OrvaneInternal
