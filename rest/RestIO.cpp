#include "rest/RestIO.h"

#include <limits>
#include <typeinfo>
#include <utility>

namespace OrvaneInternal {

namespace {

constexpr size_t kAllOnes = std::numeric_limits<size_t>::max();
constexpr int kSeekOk = 0;   // CURL_SEEKFUNC_OK
constexpr int kSeekFail = 1; // CURL_SEEKFUNC_FAIL

} // namespace

void RestIO::AddPart(std::shared_ptr<RestIOPart> part)
{
    m_parts.push_back(std::move(part));
    if (m_current == -1) {
        m_current = 0;
    }
}

size_t RestIO::GetSize() const
{
    size_t total = 0;
    for (const auto& part : m_parts) {
        total += part->GetSize();
    }
    return total;
}

size_t RestIO::Read(char* buffer, size_t size)
{
    if (m_current == -1) {
        return kAllOnes;
    }
    const size_t count = m_parts.size();
    size_t total = 0;
    if (static_cast<size_t>(m_current) != count && size != 0) {
        for (;;) {
            RestIOPart& part = *m_parts[m_current];
            const size_t k = part.Read(buffer, size);
            total += k;
            buffer += k;
            size -= k;
            if (part.Done()) {
                ++m_current;
                if (size == 0 || static_cast<size_t>(m_current) == count) {
                    break;
                }
            } else if (size == 0) {
                break;
            }
        }
    }
    // The last part stays current once the body is exhausted; further reads give 0.
    if (static_cast<size_t>(m_current) >= count) {
        m_current = static_cast<int32_t>(count) - 1;
    }
    m_position += total;
    return total;
}

bool RestIO::RewindThroughCurrent(size_t first)
{
    for (size_t i = first; static_cast<int64_t>(i) <= m_current; ++i) {
        if (!m_parts[i]->Seek(0)) {
            return false;
        }
    }
    return true;
}

int RestIO::Seek(size_t offset)
{
    const size_t count = m_parts.size();
    if (count != 0 && offset != kAllOnes) {
        size_t remaining = offset;
        for (size_t i = 0; i < count; ++i) {
            RestIOPart& part = *m_parts[i];
            const size_t s = part.GetSize();
            if (s > remaining) {
                // Parts after the target up to the old current one were read
                // and must start over; later ones were never touched.
                if (!part.Seek(remaining) || !RewindThroughCurrent(i + 1)) {
                    return kSeekFail;
                }
                m_current = static_cast<int32_t>(i);
                return Moved(offset);
            }
            remaining -= s;
            // s - 1 wraps for an empty part, which no part accepts.
            if (!part.Seek(s - 1)) {
                return kSeekFail;
            }
        }
    }
    // No part holds the offset: start over, leaving part 0 where it is.
    if (!RewindThroughCurrent(1)) {
        return kSeekFail;
    }
    m_current = 0;
    return Moved(0);
}

int RestIO::Moved(uint64_t position)
{
    m_position = position;
    return kSeekOk;
}

bool RestIO::gmock_equal(const RestIO& other, const std::string& from, const std::string& to) const
{
    if (m_parts.size() != other.m_parts.size()) {
        return false;
    }
    for (size_t i = 0; i < m_parts.size(); ++i) {
        const RestIOPart& mine = *m_parts[i];
        const RestIOPart& theirs = *other.m_parts[i];
        if (typeid(mine) != typeid(theirs) || !mine.gmock_equal(theirs, from, to)) {
            return false;
        }
    }
    return true;
}

} // namespace OrvaneInternal
