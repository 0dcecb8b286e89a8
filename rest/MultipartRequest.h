// The upload body: for each payload a boundary line, a header block and the
// payload (streamed from memory or from its file), then a closing boundary.
// Every piece is a part of m_body, so the body is never assembled in memory
// and its length is known before the transfer. Use: construct, add payloads,
// then Finish() exactly once before sending; nothing enforces the order.
#pragma once

#include "rest/RestRequest.h"

#include <cstdint>
#include <memory>
#include <string>

namespace OrvaneInternal {

class MultipartRequest : public RestRequest {
  public:
    MultipartRequest(Method method, const std::string& url, const std::string& token);
    ~MultipartRequest() override = default;

    // The delimiter before a payload; only the first has no leading CR LF,
    // because the CR LF ending a payload belongs to the delimiter after it.
    void AddBoundary();
    // The form field "request_payload" over `payload`, shared, not copied.
    void AddBufferPayload(std::shared_ptr<std::string> payload);
    // The form field `name` streamed from the file at `path`; the whole path is
    // sent as the filename. Neither is escaped. Opens the file now and throws
    // RestIO::RestIOException "Failed to open file: " + path when it cannot.
    void AddFilePayload(const std::string& name, const std::string& path);
    // The closing delimiter.
    void Finish();

    // Equal content type and body once each request's own boundary is
    // accounted for, so equal inputs compare equal whatever the random
    // boundaries. Method, URL and token are deliberately not compared.
    bool gmock_equal(const MultipartRequest& other) const;

    // The 40-character boundary drawn from `seed`: 28 hyphens and 12 lower-case
    // hex digits of a value drawn uniformly from [0, 2^48) with mt19937_64.
    static std::string MakeBoundary(uint64_t seed);

    bool m_first; // no delimiter added yet
    // Shared by every part made from them.
    std::shared_ptr<std::string> m_firstBoundary; // "--" B CRLF
    std::shared_ptr<std::string> m_nextBoundary;  // CRLF "--" B CRLF
    std::shared_ptr<std::string> m_endBoundary;   // CRLF "--" B "--" CRLF
    std::shared_ptr<std::string> m_payloadHeader; // the "request_payload" header block

  private:
    std::string Boundary() const;
};

} // namespace OrvaneInternal
