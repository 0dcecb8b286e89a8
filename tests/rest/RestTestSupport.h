// Shared by the rest/ tests: a scratch directory with real files, and a reader
// that drains a body in uneven chunks as libcurl would.
#pragma once

#include "rest/RestIO.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace OrvaneTest {

// A fresh directory, removed with everything in it when the object goes.
class TempDir {
public:
    TempDir()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "orv-rest-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("mkdtemp failed for " + pattern);
        }
        m_path = pattern;
    }
    ~TempDir()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    std::string Path(const std::string& name) const { return m_path + "/" + name; }

    std::string Write(const std::string& name, const std::string& bytes) const
    {
        const std::string path = Path(name);
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        if (!out) {
            throw std::runtime_error("cannot write " + path);
        }
        return path;
    }

private:
    std::string m_path;
};

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

// Reads until Read returns 0, cycling through `chunks` for the sizes asked.
// Gives up (and fails the test) after `maxCalls` reads.
inline std::string ReadAll(OrvaneInternal::RestIO& body, const std::vector<size_t>& chunks = {65536},
                           size_t maxCalls = 1000000)
{
    std::string out;
    std::vector<char> buffer;
    for (size_t call = 0; call < maxCalls; ++call) {
        const size_t want = chunks[call % chunks.size()];
        buffer.resize(want);
        const size_t got = body.Read(buffer.data(), want);
        if (got == 0) {
            return out;
        }
        if (got > want) {
            ADD_FAILURE() << "Read returned " << got << " for a chunk of " << want;
            return out;
        }
        out.append(buffer.data(), got);
    }
    ADD_FAILURE() << "body did not end within " << maxCalls << " reads";
    return out;
}

}  // namespace OrvaneTest
