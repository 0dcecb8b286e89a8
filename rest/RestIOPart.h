// One piece of a streamed request body: an in-memory string or a file. A part
// keeps its own read position; RestIO strings parts together and moves
// between them.
#pragma once

#include <cstddef>
#include <string>

namespace OrvaneInternal {

class RestIOPart {
  public:
    virtual ~RestIOPart() = default;

    // Copies up to `size` bytes from the current position into `buffer` and
    // advances; returns the count.
    virtual size_t Read(char* buffer, size_t size) = 0;
    // Total size in bytes, fixed when the part was made.
    virtual size_t GetSize() = 0;
    // Moves the read position to an absolute offset inside the part.
    virtual bool Seek(size_t position) = 0;
    // True when the part has nothing more to give.
    virtual bool Done() = 0;
    // Structural equality. Buffer parts compare their texts with every
    // occurrence of `from` in this text replaced by `to`, so that bodies built
    // with different multipart boundaries can compare equal; an empty `from`
    // or `to` means a byte-for-byte comparison.
    virtual bool gmock_equal(const RestIOPart& other, const std::string& from, const std::string& to) const = 0;
};

} // namespace OrvaneInternal
