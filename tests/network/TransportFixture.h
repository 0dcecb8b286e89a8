// Shared pieces of the transport tests: libcurl's global state and a proxy-free environment
// per test, a reply that counts its transfers, and a body part that counts rewinds and can
// be told to fail.
#pragma once

#include "network/Certificate.h"
#include "network/CurlNetworkStatic.h"
#include "network/NetworkFactory.h"
#include "rest/BufferReply.h"
#include "rest/RestIO.h"
#include "rest/RestIOPart.h"
#include "tests/support/ProxyEnvironment.h"
#include "tests/support/TestHttpServer.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

namespace OrvaneTest {

// Every test brings libcurl up and down itself, and starts with no proxy variables at all so
// that loopback requests go straight to the test server unless the test names a proxy. The
// process-wide seams (store loader, transport creator) are left empty whatever the test did.
class TransportTest : public ::testing::Test {
protected:
    void SetUp() override { OrvaneInternal::CurlNetworkStatic::CurlInit(); }
    void TearDown() override
    {
        OrvaneInternal::Certificate::s_storeLoader = nullptr;
        OrvaneInternal::NetworkFactory::s_creator = nullptr;
        OrvaneInternal::CurlNetworkStatic::CurlCleanup();
    }

private:
    ProxyEnvironment m_noProxy{""};
};

// Send clears the reply once before every transfer (every curl_easy_perform), so the number
// of Clear calls is the number of transfers, whatever libcurl does inside each of them.
class CountingReply : public OrvaneInternal::BufferReply {
public:
    void Clear() override
    {
        ++clears;
        BufferReply::Clear();
    }
    std::string Text() const { return std::string(m_data.begin(), m_data.end()); }

    int clears = 0;
};

// A body part over a string that counts its rewinds, and on request fails a read once
// `failAt` bytes are out, or refuses every seek.
class ScriptedPart : public OrvaneInternal::RestIOPart {
public:
    explicit ScriptedPart(std::string data) : m_data(std::move(data)) {}

    size_t Read(char* buffer, size_t size) override
    {
        if (failAt != std::string::npos && m_position >= failAt)
            throw OrvaneInternal::RestIO::RestIOException("Failed to read from file: /scripted/part");
        size_t end = std::min(m_data.size(), failAt);
        size_t n = std::min(size, end - m_position);
        std::memcpy(buffer, m_data.data() + m_position, n);
        m_position += n;
        return n;
    }
    size_t GetSize() override { return m_data.size(); }
    bool Seek(size_t position) override
    {
        rewinds += position == 0 ? 1 : 0;
        if (refuseSeek || position >= m_data.size())
            return false;
        m_position = position;
        return true;
    }
    bool Done() override { return m_position == m_data.size(); }
    bool gmock_equal(const RestIOPart&, const std::string&, const std::string&) const override { return false; }

    size_t failAt = std::string::npos;
    bool refuseSeek = false;
    int rewinds = 0;

private:
    std::string m_data;
    size_t m_position = 0;
};

// The test server over TLS with a self-signed certificate of its own for 127.0.0.1.
inline ServerOptions Tls()
{
    ServerOptions options;
    options.tls = true;
    return options;
}

inline std::string Sha256Hex(const std::string& bytes)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_sha256(), nullptr);
    std::string out;
    for (unsigned int i = 0; i < length; ++i)
        out += "0123456789abcdef"[digest[i] >> 4] + std::string(1, "0123456789abcdef"[digest[i] & 15]);
    return out;
}

inline std::shared_ptr<std::string> Text(const std::string& text)
{
    return std::make_shared<std::string>(text);
}

// Bytes that are not periodic over any short stretch, so a dropped or repeated block shows.
inline std::string Pattern(size_t size)
{
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>((i * 7 + i / 251 + i / 65536) & 0xff);
    return bytes;
}

}  // namespace OrvaneTest
