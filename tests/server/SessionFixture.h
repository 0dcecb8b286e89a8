// The session tests' ground: a started library (without libcurl), a recording
// transport installed through NetworkFactory::s_creator, the capturing logger
// and builders for server replies.
#pragma once

#include "tests/server/CapturingLogger.h"
#include "tests/support/ChildProcess.h"

#include "network/CurlNetworkException.h"
#include "network/INetwork.h"
#include "network/NetworkFactory.h"
#include "rest/BufferReply.h"
#include "rest/RestRequest.h"
#include "server/MultipartReqMsg.h"
#include "server/ServerConnection.h"
#include "server/ServerException.h"
#include "sys/Unicode.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <functional>
#include <memory>
#include <stdexcept>
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
    std::vector<char> buffer(65536);
    for (size_t call = 0; !body.m_parts.empty() && call < 1000000; ++call) {
        const size_t want = kChunks[call % 6];
        const size_t got = body.Read(buffer.data(), want);
        if (got == 0)
            return out;
        if (got > want) {
            ADD_FAILURE() << "Read gave " << got << " bytes for a chunk of " << want;
            return out;
        }
        out.append(buffer.data(), got);
    }
    EXPECT_TRUE(body.m_parts.empty()) << "body did not end";
    return out;
}

struct SentRequest {
    OrvaneInternal::RestRequest::Method method;
    std::string url, token, contentType, body;
    size_t parts;          // 0 for a request without body
    size_t announcedSize;  // RestIO::GetSize, what the transport would announce
    std::string proxyUser, proxyPassword;  // the credentials in force when sending
};

// Keeps every request as the wire would see it and answers from a scripted queue.
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
        std::string body = step.body;  // delivered in pieces, as libcurl's write callback would
        for (size_t at = 0; at < body.size(); at += 5)
            reply.Write(&body[at], std::min<size_t>(5, body.size() - at));
        dynamic_cast<OrvaneInternal::BufferReply&>(reply).m_status = step.status;
    }
    size_t Pending() const { return m_script.size(); }

    std::vector<SentRequest> m_sent;
    std::string m_proxyUser, m_proxyPassword;
    int m_proxyCalls = 0;

private:
    struct Step {
        bool fail;
        int64_t status;
        std::string body;  // the reply body, or the transport's error text
    };
    std::deque<Step> m_script;
};

// The boundary out of a multipart content type, or "" unless it is 28 hyphens
// and 12 lower-case hex digits.
inline std::string Boundary(const std::string& contentType)
{
    const std::string prefix = "multipart/mixed; boundary=";
    if (contentType.compare(0, prefix.size(), prefix) != 0 || contentType.size() != prefix.size() + 40)
        return "";
    const std::string boundary = contentType.substr(prefix.size());
    const bool shaped = boundary.find_first_not_of('-') == 28 &&
                        boundary.find_first_not_of("0123456789abcdef", 28) == std::string::npos;
    return shaped ? boundary : "";
}

// The upload body: XML part, then the file part named `name`.
inline std::string ExpectedUpload(const std::string& b, const std::string& xml, const std::string& name,
                                  const std::string& path, const std::string& file)
{
    return "--" + b + "\r\nContent-Disposition: form-data; name=\"request_payload\"\r\n\r\n" + xml + "\r\n--" + b +
           "\r\nContent-Disposition: form-data; name=\"" + name + "\"; filename=\"" + path +
           "\"\r\nContent-Type: application/octet-stream\r\n\r\n" + file + "\r\n--" + b + "--\r\n";
}

inline std::string SigninReply(const std::string& token = "T", const std::string& site = "S")
{
    return "<qsResponse><credentials token=\"" + token + "\"><site id=\"" + site +
           "\" contentUrl=\"\"/><user id=\"U\"/></credentials></qsResponse>";
}

using Projects = std::vector<std::pair<std::string, std::string>>;  // name, id in UTF-8

inline std::string PageReply(unsigned long page, unsigned long total, const Projects& projects)
{
    std::string xml = "<qsResponse><pagination pageNumber=\"" + std::to_string(page) +
                      "\" pageSize=\"100\" totalAvailable=\"" + std::to_string(total) + "\"/><projects>";
    for (const auto& project : projects)
        xml += "<project id=\"" + project.second + "\" name=\"" + project.first + "\"/>";
    return xml + "</projects></qsResponse>";
}

// `count` projects named prefix0, prefix1, ... with ids id-prefix0, ...
inline Projects Numbered(const std::string& prefix, int count, const Projects& more = {})
{
    Projects projects;
    for (int i = 0; i < count; ++i)
        projects.emplace_back(prefix + std::to_string(i), "id-" + prefix + std::to_string(i));
    projects.insert(projects.end(), more.begin(), more.end());
    return projects;
}

// A message of any kind, method and reply type, for driving conversion and Send directly.
class AnyMsg : public OrvaneInternal::MultipartReqMsg {
public:
    AnyMsg(ReqType kind, OrvaneInternal::RestRequest::Method method, RepType reply = Xml, const std::wstring& path = L"")
        : MultipartReqMsg(L"http://h", L"site", L"t\u00F6k", kind, method, reply), m_path(path)
    {
    }
    std::wstring GetUrl() const override { return L"http://h/\u00E4?q=1"; }
    std::wstring GetXml() const override { return L"<r a=\"\u20AC\"/>"; }
    std::wstring GetPath() const override { return m_path; }
    std::string GetFormat() const override { return "the_file"; }
    std::wstring m_path;
};

inline std::wstring Wide(const std::string& utf8) { return Unicode::ToWideChar(utf8).str(); }

class SessionTest : public ::testing::Test {
protected:
    SessionTest()
    {
        OrvaneInternal::NetworkFactory::s_creator = [this] {
            ++m_created;
            return std::shared_ptr<OrvaneInternal::INetwork>(m_network);
        };
        OrvaneInternal::ServerConnection::s_initialized = true;
    }
    ~SessionTest() override
    {
        OrvaneInternal::NetworkFactory::s_creator = nullptr;
        OrvaneInternal::ServerConnection::s_initialized = false;
    }

    FakeNetwork& Net() { return *m_network; }
    std::vector<SentRequest>& Sent() { return m_network->m_sent; }
    std::vector<std::string> Log() { return m_log.logger->Take(); }
    std::string Write(const std::string& name, const std::string& bytes)
    {
        WriteFileBytes(m_dir.File(name), bytes);
        return m_dir.File(name);
    }

    // A session signed in to http://srv with token T and site S; the sign-in's
    // traffic and log lines are dropped.
    std::unique_ptr<OrvaneInternal::ServerConnection> Connected()
    {
        auto session = std::make_unique<OrvaneInternal::ServerConnection>();
        Net().Reply(200, SigninReply());
        session->Connect(L"http://srv", L"alice", L"pw", L"");
        Sent().clear();
        Log();
        return session;
    }

    std::shared_ptr<FakeNetwork> m_network = std::make_shared<FakeNetwork>();
    int m_created = 0;
    CapturingLoggerScope m_log;
    TempDirectory m_dir{"orv-server"};
};

// How a call ended: "ok"; "<code> <message>" for a ServerException; "<type>
// <what>" for the standard errors that pass through the session unchanged.
inline std::string Outcome(const std::function<void()>& call)
{
    try {
        call();
        return "ok";
    } catch (const OrvaneInternal::ServerException& e) {
        return std::to_string(e.getErrorCode()) + " " + Unicode::ToUTF8(e.getMessage()).str();
    } catch (const std::invalid_argument& e) {
        return std::string("invalid_argument ") + e.what();
    } catch (const std::out_of_range& e) {
        return std::string("out_of_range ") + e.what();
    }
}

}  // namespace OrvaneTest
