// Shared by the rest/ tests: patterned bytes and a reader that drains a body in uneven
// chunks as libcurl would. Files go through tests/support (TempDirectory, WriteFileBytes).
#pragma once

#include "rest/RestIO.h"
#include "tests/support/ChildProcess.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace OrvaneTest {

// Bytes that repeat nowhere near a chunk size, so a misplaced chunk shows.
inline std::string PatternBytes(size_t size)
{
    std::string bytes(size, '\0');
    uint32_t x = 2463534242u;
    for (char& c : bytes) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        c = static_cast<char>(x);
    }
    return bytes;
}

inline std::shared_ptr<std::string> Text(const std::string& text)
{
    return std::make_shared<std::string>(text);
}

// Writes `bytes` to `name` in `dir` and returns the path.
inline std::string WriteFile(const TempDirectory& dir, const std::string& name, const std::string& bytes)
{
    WriteFileBytes(dir.File(name), bytes);
    return dir.File(name);
}

// Reads until Read returns 0, cycling through `chunks` for the sizes asked; bounded.
inline std::string ReadAll(OrvaneInternal::RestIO& body, const std::vector<size_t>& chunks = {65536})
{
    std::string out;
    std::vector<char> buffer;
    for (size_t call = 0; call < 1000000; ++call) {
        const size_t want = chunks[call % chunks.size()];
        buffer.resize(want);
        const size_t got = body.Read(buffer.data(), want);
        if (got == 0 || got > want) {
            EXPECT_LE(got, want) << "Read returned more than asked";
            return out;
        }
        out.append(buffer.data(), got);
    }
    ADD_FAILURE() << "body did not end within 1000000 reads";
    return out;
}

}  // namespace OrvaneTest
