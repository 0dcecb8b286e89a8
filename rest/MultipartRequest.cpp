#include "rest/MultipartRequest.h"

#include "rest/RestIOPartBuffer.h"
#include "rest/RestIOPartFile.h"

#include <boost/algorithm/string/replace.hpp>

#include <chrono>
#include <cstdio>
#include <random>
#include <utility>

namespace OrvaneInternal {

namespace {

const char kPayloadHeader[] = "Content-Disposition: form-data; name=\"request_payload\"\r\n\r\n";
const char kContentTypePrefix[] = "multipart/mixed; boundary=";
const char kHyphens[] = "----------------------------"; // 28

uint32_t LowClockBits()
{
    using namespace std::chrono;
    return static_cast<uint32_t>(duration_cast<nanoseconds>(system_clock::now().time_since_epoch()).count());
}

} // namespace

MultipartRequest::MultipartRequest(Method method, const std::string& url, const std::string& token)
    : RestRequest(method, url, token, "multipart/mixed"), m_first(true),
      m_firstBoundary(std::make_shared<std::string>()), m_nextBoundary(std::make_shared<std::string>()),
      m_endBoundary(std::make_shared<std::string>()), m_payloadHeader(std::make_shared<std::string>())
{
    // Deliberately seeded with the duration of one short string assignment, a
    // small number, so few distinct boundaries occur; kept as the system has
    // always drawn them.
    const uint32_t t1 = LowClockBits();
    *m_payloadHeader = kPayloadHeader;
    const uint32_t t2 = LowClockBits();
    const std::string boundary = MakeBoundary(static_cast<uint32_t>(t2 - t1));

    m_contentType = kContentTypePrefix + boundary;
    *m_firstBoundary = "--" + boundary + "\r\n";
    *m_nextBoundary = "\r\n--" + boundary + "\r\n";
    *m_endBoundary = "\r\n--" + boundary + "--\r\n";
}

std::string MultipartRequest::MakeBoundary(uint64_t seed)
{
    // Uniform over [0, 2^48) by rejection and downscaling, written out rather
    // than left to std::uniform_int_distribution, whose method differs between
    // library versions.
    constexpr uint64_t kScale = 65535;                // (2^64 - 1) / 2^48
    constexpr uint64_t kLast = 0xFFFEFFFFFFFFFFFFull; // 2^48 * kScale - 1
    std::mt19937_64 engine(seed);
    uint64_t r;
    do {
        r = engine();
    } while (r > kLast);

    char digits[13];
    std::snprintf(digits, sizeof digits, "%012llx", static_cast<unsigned long long>(r / kScale));
    return kHyphens + std::string(digits);
}

void MultipartRequest::AddBoundary()
{
    if (m_first) {
        m_body.AddPart(std::make_shared<RestIOPartBuffer>(m_firstBoundary));
        m_first = false;
    } else {
        m_body.AddPart(std::make_shared<RestIOPartBuffer>(m_nextBoundary));
    }
}

void MultipartRequest::AddBufferPayload(std::shared_ptr<std::string> payload)
{
    AddBoundary();
    m_body.AddPart(std::make_shared<RestIOPartBuffer>(m_payloadHeader));
    m_body.AddPart(std::make_shared<RestIOPartBuffer>(std::move(payload)));
}

void MultipartRequest::AddFilePayload(const std::string& name, const std::string& path)
{
    AddBoundary();
    auto header = std::make_shared<std::string>();
    *header += "Content-Disposition: form-data; name=\"";
    *header += name;
    *header += "\"; filename=\"";
    *header += path;
    *header += "\"\r\nContent-Type: application/octet-stream\r\n\r\n";
    m_body.AddPart(std::make_shared<RestIOPartBuffer>(std::move(header)));
    m_body.AddPart(std::make_shared<RestIOPartFile>(path));
}

void MultipartRequest::Finish()
{
    m_body.AddPart(std::make_shared<RestIOPartBuffer>(m_endBoundary));
}

std::string MultipartRequest::Boundary() const
{
    // m_nextBoundary is CR LF, "--", the boundary, CR LF.
    return m_nextBoundary->substr(4, m_nextBoundary->size() - 6);
}

bool MultipartRequest::gmock_equal(const MultipartRequest& other) const
{
    const std::string mine = Boundary();
    const std::string theirs = other.Boundary();
    return boost::algorithm::replace_all_copy(m_contentType, mine, theirs) == other.m_contentType &&
           m_body.gmock_equal(other.m_body, mine, theirs);
}

} // namespace OrvaneInternal
