// A request whose body is one whole file, for callers that upload a bare file.
// The file is opened at construction, so a missing file fails here
// (RestIO::RestIOException "Failed to open file: " + path), before any transfer.
#pragma once

#include "rest/RestIOPartFile.h"
#include "rest/RestRequest.h"

#include <memory>
#include <string>

namespace OrvaneInternal {

class FileRequest : public RestRequest {
  public:
    // The fourth argument is accepted and ignored. The content type is exactly
    // "application/octet" (no "-stream"), the value servers have always received.
    FileRequest(Method method, const std::string& url, const std::string& token, const std::string& /*ignored*/,
                const std::string& path)
        : RestRequest(method, url, token, "application/octet")
    {
        m_body.AddPart(std::make_shared<RestIOPartFile>(path));
    }
    ~FileRequest() override = default;

    bool gmock_equal(const FileRequest& other) const { return SameContent(other); }
};

} // namespace OrvaneInternal
