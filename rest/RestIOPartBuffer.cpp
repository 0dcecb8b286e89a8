#include "rest/RestIOPartBuffer.h"

#include <boost/algorithm/string/replace.hpp>

#include <algorithm>
#include <cstring>
#include <utility>

namespace OrvaneInternal {

namespace {

// Non-overlapping occurrences, counted left to right as replace-all finds them.
size_t CountOccurrences(const std::string& text, const std::string& pattern)
{
    size_t count = 0;
    for (size_t at = text.find(pattern); at != std::string::npos; at = text.find(pattern, at + pattern.size())) {
        ++count;
    }
    return count;
}

} // namespace

RestIOPartBuffer::RestIOPartBuffer(std::shared_ptr<std::string> data)
    : m_data(std::move(data)), m_size(m_data->size()), m_position(0)
{
}

size_t RestIOPartBuffer::Read(char* buffer, size_t size)
{
    const size_t n = std::min(size, m_size - m_position);
    std::memcpy(buffer, m_data->data() + m_position, n);
    m_position += n;
    return n;
}

bool RestIOPartBuffer::Seek(size_t position)
{
    if (position >= m_size) {
        return false;
    }
    m_position = position;
    return true;
}

bool RestIOPartBuffer::gmock_equal(const RestIOPart& other, const std::string& from, const std::string& to) const
{
    const auto* buffer = dynamic_cast<const RestIOPartBuffer*>(&other);
    if (buffer == nullptr) {
        return false;
    }
    const std::string& mine = *m_data;
    const std::string& theirs = *buffer->m_data;
    if (from.empty() || to.empty()) {
        return mine == theirs;
    }
    return CountOccurrences(mine, from) == CountOccurrences(theirs, to) &&
           boost::algorithm::replace_all_copy(mine, from, to) == theirs;
}

} // namespace OrvaneInternal
