// A request whose body is one XML text, shared with the caller, not copied.
#pragma once

#include "rest/RestIOPartBuffer.h"
#include "rest/RestRequest.h"

#include <memory>
#include <string>
#include <utility>

namespace OrvaneInternal {

class BufferRequest : public RestRequest {
  public:
    BufferRequest(Method method, const std::string& url, const std::string& token, std::shared_ptr<std::string> body)
        : RestRequest(method, url, token, "text/xml")
    {
        m_body.AddPart(std::make_shared<RestIOPartBuffer>(std::move(body)));
    }
    ~BufferRequest() override = default;

    bool gmock_equal(const BufferRequest& other) const { return SameContent(other); }
};

} // namespace OrvaneInternal
