// A request without a body or content type.
#pragma once

#include "rest/RestRequest.h"

#include <string>

namespace OrvaneInternal {

class GetRequest : public RestRequest {
  public:
    GetRequest(Method method, const std::string& url, const std::string& token)
        : RestRequest(method, url, token, std::string())
    {
    }
    // Every GET the library makes is built so.
    GetRequest(const std::string& url, const std::string& token) : GetRequest(Get, url, token) {}
    ~GetRequest() override = default;

    bool gmock_equal(const GetRequest& other) const { return SameContent(other); }
};

} // namespace OrvaneInternal
