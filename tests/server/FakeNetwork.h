// A recording transport for tests of the session layer and the exported API.
// Installed through NetworkFactory::s_creator, it keeps every request as the
// wire would see it (method, URL, token, content type, the whole body pulled
// through m_body.Read in uneven chunks) and answers from a scripted queue.
#pragma once

#include "network/CurlNetworkException.h"
#include "network/INetwork.h"
#include "network/NetworkFactory.h"
#include "rest/BufferReply.h"
#include "rest/RestRequest.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace OrvaneTest {

// Drains a body as libcurl would, in chunk sizes that straddle part edges.
// A body without parts is left alone: RestIO answers it with all-ones.
inline std::string ReadBody(OrvaneInternal::RestIO& body)
{
    static const size_t kChunks[] = {1, 7, 3, 1000, 13, 65536};
    std::string out;
    if (body.m_parts.empty())
        return out;
    std::vector<char> buffer(65536);
    for (size_t call = 0; call < 1000000; ++call) {
        const size_t want = kChunks[call % (sizeof kChunks / sizeof kChunks[0])];
        const size_t got = body.Read(buffer.data(), want);
        if (got == 0)
            return out;
        if (got > want) {
            ADD_FAILURE() << "Read gave " << got << " bytes for a chunk of " << want;
            return out;
        }
        out.append(buffer.data(), got);
    }
    ADD_FAILURE() << "body did not end";
    return out;
}

struct SentRequest {
    OrvaneInternal::RestRequest::Method method;
    std::string url;
    std::string token;
    std::string contentType;
    std::string body;
    size_t parts;          // number of body parts; 0 for a request without body
    size_t announcedSize;  // RestIO::GetSize, what the transport would announce
    std::string proxyUser;  // the credentials the transport held when sending
    std::string proxyPassword;
};

class FakeNetwork : public OrvaneInternal::INetwork {
public:
    void Reply(int64_t status, const std::string& body) { m_script.push_back({false, status, body}); }
    void Fail(const std::string& curlText) { m_script.push_back({true, 0, curlText}); }

    void SetProxyCredentials(const std::string& user, const std::string& password) override
    {
        m_proxyUser = user;
        m_proxyPassword = password;
        ++m_proxyCalls;
    }

    void Send(OrvaneInternal::RestRequest& request, OrvaneInternal::RestReply& reply) override
    {
        m_sent.push_back({request.m_method, request.m_url, request.m_token, request.m_contentType,
                          ReadBody(request.m_body), request.m_body.m_parts.size(), request.m_body.GetSize(),
                          m_proxyUser, m_proxyPassword});
        if (m_script.empty()) {
            ADD_FAILURE() << "unscripted request to " << request.m_url;
            throw OrvaneInternal::CurlNetworkException("unscripted request");
        }
        const Step step = m_script.front();
        m_script.pop_front();
        if (step.fail)
            throw OrvaneInternal::CurlNetworkException(step.body);
        // Delivered in pieces, as libcurl's write callback would.
        std::string body = step.body;
        for (size_t at = 0; at < body.size(); at += 5)
            reply.Write(&body[at], std::min<size_t>(5, body.size() - at));
        dynamic_cast<OrvaneInternal::BufferReply&>(reply).m_status = step.status;
    }

    size_t Pending() const { return m_script.size(); }

    std::vector<SentRequest> m_sent;
    std::string m_proxyUser;
    std::string m_proxyPassword;
    int m_proxyCalls = 0;

private:
    struct Step {
        bool fail;
        int64_t status;
        std::string body;  // the reply body, or the transport's error text
    };
    std::deque<Step> m_script;
};

// Makes NetworkFactory hand out `network` for as long as the scope lives.
class FakeNetworkScope {
public:
    FakeNetworkScope() : network(std::make_shared<FakeNetwork>())
    {
        OrvaneInternal::NetworkFactory::s_creator = [this] {
            ++created;
            return std::shared_ptr<OrvaneInternal::INetwork>(network);
        };
    }
    ~FakeNetworkScope() { OrvaneInternal::NetworkFactory::s_creator = nullptr; }
    FakeNetworkScope(const FakeNetworkScope&) = delete;
    FakeNetworkScope& operator=(const FakeNetworkScope&) = delete;

    std::shared_ptr<FakeNetwork> network;
    int created = 0;
};

}  // namespace OrvaneTest
