// The sink the transport writes a reply body into.
#pragma once

#include <cstddef>
#include <cstdint>

namespace OrvaneInternal {

class RestReply {
  public:
    virtual ~RestReply() = default;
    // Takes `size` more bytes of the body; returns the count taken.
    virtual size_t Write(char* data, size_t size) = 0;
    // Forgets the body so far; called before a transfer is repeated.
    virtual void Clear() = 0;
    // The HTTP status of the exchange (0: none arrived); kept by replies that
    // carry one.
    virtual void SetStatus(int64_t) {}
};

} // namespace OrvaneInternal
