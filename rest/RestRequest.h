// Everything the transport needs for one HTTP exchange. A plain record: the
// transport reads the fields directly. Subclasses differ only in how their
// constructors fill the content type and the body.
#pragma once

#include "rest/RestIO.h"

#include <cstdint>
#include <string>

namespace OrvaneInternal {

class RestRequest {
  public:
    enum Method : int32_t {
        Get = 0,
        Post = 1, // the only method whose body is sent
    };

    RestRequest(Method method, const std::string& url, const std::string& token, const std::string& contentType)
        : m_method(method), m_url(url), m_token(token), m_contentType(contentType)
    {
    }
    virtual ~RestRequest() = default;

    // Equal method, URL and token; content type and body are not compared.
    bool gmock_equal(const RestRequest& other) const
    {
        return m_method == other.m_method && m_url == other.m_url && m_token == other.m_token;
    }

    Method m_method;
    std::string m_url;         // UTF-8, complete, used as given
    std::string m_token;       // "X-Orvane-Auth: " value; sent even when empty
    std::string m_contentType; // "Content-Type: " value; may be empty
    RestIO m_body;             // empty for requests without a body

  protected:
    // The equality of the request kinds: content type and body only, texts
    // compared byte for byte. Method, URL and token are deliberately left out,
    // so requests differing only there compare equal.
    bool SameContent(const RestRequest& other) const
    {
        return m_contentType == other.m_contentType && m_body.gmock_equal(other.m_body, std::string(), std::string());
    }
};

} // namespace OrvaneInternal
