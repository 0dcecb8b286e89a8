// A request body streamed from an ordered list of parts, never assembled in
// memory. The transport asks for the total size up front, pulls bytes with
// Read in whatever chunks it likes and calls Seek to rewind for a resend.
#pragma once

#include "rest/RestIOPart.h"

#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <vector>

namespace OrvaneInternal {

class RestIO {
  public:
    // A body part could not be opened or read. The message is reached only
    // through the non-const what(): the standard const what() is deliberately
    // not overridden, so a handler holding a std::exception (or a const
    // RestIOException) sees the standard text instead.
    class RestIOException : public std::exception {
      public:
        explicit RestIOException(const std::string& message) : m_message(message) {}
        ~RestIOException() override = default;

        using std::exception::what;
        virtual const char* what() noexcept { return m_message.c_str(); }

        std::string m_message;
    };

    RestIO() : m_current(-1) {}

    void AddPart(std::shared_ptr<RestIOPart> part);
    size_t GetSize() const;

    // Fills `buffer` across part boundaries as far as the body allows and
    // returns the count, 0 once the body is exhausted. A body that never had a
    // part answers with the all-ones value. Part read failures propagate as
    // RestIOException.
    size_t Read(char* buffer, size_t size);

    // Moves to an absolute offset into the whole body. Returns 0 on success
    // and 1 on failure, libcurl's CURL_SEEKFUNC_OK and CURL_SEEKFUNC_FAIL.
    // Parts passed over are left on their last byte, so an empty part before
    // the target makes the seek fail (and with it rewinding a body whose first
    // part is empty); an offset at or past the total size rewinds instead.
    int Seek(size_t offset);

    // Same number of parts, pairwise of the same type and equal with `from`
    // replaced by `to` (RestIOPart::gmock_equal). Read positions are ignored.
    bool gmock_equal(const RestIO& other, const std::string& from, const std::string& to) const;

    // Bytes of the body before the read position: what Reads gave since the
    // last successful Seek, plus its offset.
    uint64_t GetPosition() const { return m_position; }

    std::vector<std::shared_ptr<RestIOPart>> m_parts; // in body order
    int32_t m_current;                                // index of the part being read; -1 while there are no parts

  private:
    // Rewinds parts first..m_current; false as soon as one refuses.
    bool RewindThroughCurrent(size_t first);
    // Seek's success: the new position.
    int Moved(uint64_t position);

    uint64_t m_position = 0; // bytes of the body before the read position
};

} // namespace OrvaneInternal
