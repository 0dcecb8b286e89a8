// A reply collected in memory with its HTTP status, for one exchange.
#pragma once

#include "rest/RestReply.h"

#include <cstdint>
#include <vector>

namespace OrvaneInternal {

class BufferReply : public RestReply {
  public:
    BufferReply() : m_status(0) {}

    size_t Write(char* data, size_t size) override
    {
        m_data.insert(m_data.end(), data, data + size);
        return size;
    }
    // The status stays: it belongs to the exchange, not to the body.
    void Clear() override { m_data.clear(); }
    void SetStatus(int64_t status) override { m_status = status; }

    int64_t m_status;         // set by the transport after the exchange
    std::vector<char> m_data; // body bytes in arrival order
};

} // namespace OrvaneInternal
