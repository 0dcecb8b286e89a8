// A body part over a shared in-memory string. The string is never copied;
// its length is taken once, so later changes to it are not seen.
#pragma once

#include "rest/RestIOPart.h"

#include <memory>
#include <string>

namespace OrvaneInternal {

class RestIOPartBuffer : public RestIOPart {
  public:
    explicit RestIOPartBuffer(std::shared_ptr<std::string> data);

    size_t Read(char* buffer, size_t size) override;
    size_t GetSize() override { return m_size; }
    // Fails for any position at or past the end, the end itself included.
    bool Seek(size_t position) override;
    bool Done() override { return m_position == m_size; }
    bool gmock_equal(const RestIOPart& other, const std::string& from, const std::string& to) const override;

    std::shared_ptr<std::string> m_data; // shared with whoever made the part
    size_t m_size;                       // m_data's length at construction
    size_t m_position;
};

} // namespace OrvaneInternal
