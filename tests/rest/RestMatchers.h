// GoogleMock matchers over whole requests, for tests that check what a layer
// hands to the transport:
//
//     EXPECT_THAT(sent, RequestEq(expected));          // const RestRequest&
//     EXPECT_THAT(sentPtr, Pointee(RequestEq(expected)));
//
// A request matches when it is of the same kind as `expected`, has the same
// method, URL and token, and its kind's gmock_equal holds: content type and
// body part by part, multipart bodies compared across their random boundaries.
// (gmock_equal alone ignores method, URL and token; the matcher does not.)
#pragma once

#include "rest/BufferRequest.h"
#include "rest/FileRequest.h"
#include "rest/GetRequest.h"
#include "rest/MultipartRequest.h"
#include "rest/RestRequest.h"

#include <gmock/gmock.h>

#include <memory>
#include <ostream>
#include <type_traits>
#include <typeinfo>
#include <utility>

namespace OrvaneTest {

class RequestEqMatcher : public testing::MatcherInterface<const OrvaneInternal::RestRequest&> {
public:
    explicit RequestEqMatcher(std::shared_ptr<const OrvaneInternal::RestRequest> expected)
        : m_expected(std::move(expected))
    {
    }

    bool MatchAndExplain(const OrvaneInternal::RestRequest& actual,
                         testing::MatchResultListener* listener) const override
    {
        const OrvaneInternal::RestRequest& expected = *m_expected;
        if (typeid(actual) != typeid(expected)) {
            *listener << "is another kind of request";
            return false;
        }
        if (!actual.OrvaneInternal::RestRequest::gmock_equal(expected)) {
            *listener << "has method " << actual.m_method << ", URL \"" << actual.m_url << "\", token \""
                      << actual.m_token << "\"";
            return false;
        }
        if (!KindEqual(actual, expected)) {
            *listener << "has content type \"" << actual.m_contentType << "\" and a body of "
                      << actual.m_body.m_parts.size() << " parts, " << actual.m_body.GetSize()
                      << " bytes, differing from the expected one";
            return false;
        }
        return true;
    }

    void DescribeTo(std::ostream* os) const override
    {
        *os << "is a request like the expected one: method " << m_expected->m_method << ", URL \""
            << m_expected->m_url << "\", content type \"" << m_expected->m_contentType << "\", "
            << m_expected->m_body.m_parts.size() << " body parts";
    }

private:
    // Both are of the same dynamic type here.
    static bool KindEqual(const OrvaneInternal::RestRequest& actual, const OrvaneInternal::RestRequest& expected)
    {
        using namespace OrvaneInternal;
        if (const auto* multipart = dynamic_cast<const MultipartRequest*>(&actual)) {
            return multipart->gmock_equal(static_cast<const MultipartRequest&>(expected));
        }
        if (const auto* buffer = dynamic_cast<const BufferRequest*>(&actual)) {
            return buffer->gmock_equal(static_cast<const BufferRequest&>(expected));
        }
        if (const auto* file = dynamic_cast<const FileRequest*>(&actual)) {
            return file->gmock_equal(static_cast<const FileRequest&>(expected));
        }
        if (const auto* get = dynamic_cast<const GetRequest*>(&actual)) {
            return get->gmock_equal(static_cast<const GetRequest&>(expected));
        }
        return false;  // a kind this matcher does not know
    }

    std::shared_ptr<const OrvaneInternal::RestRequest> m_expected;
};

inline testing::Matcher<const OrvaneInternal::RestRequest&>
RequestEq(std::shared_ptr<const OrvaneInternal::RestRequest> expected)
{
    return testing::MakeMatcher(new RequestEqMatcher(std::move(expected)));
}

// Keeps a copy of `expected`; the copy shares its body parts.
template <class Request, class = std::enable_if_t<std::is_base_of_v<OrvaneInternal::RestRequest, Request>>>
testing::Matcher<const OrvaneInternal::RestRequest&> RequestEq(const Request& expected)
{
    return RequestEq(std::shared_ptr<const OrvaneInternal::RestRequest>(std::make_shared<Request>(expected)));
}

}  // namespace OrvaneTest
