// CurlNetwork against the scripted HTTP server on loopback: header lines, request bodies,
// the one answer to a 401, redirects, error statuses, transport failures and failures
// raised inside libcurl's callbacks.
#include "network/CurlNetwork.h"
#include "network/CurlNetworkException.h"
#include "network/NetworkFactory.h"
#include "rest/BufferRequest.h"
#include "rest/GetRequest.h"
#include "rest/MultipartRequest.h"
#include "rest/RestIOPartBuffer.h"
#include "tests/network/TransportFixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

using namespace OrvaneInternal;
using namespace OrvaneTest;
using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::Optional;
using ::testing::StrEq;

namespace {

std::vector<std::string> Lines(const curl_slist* list)
{
    std::vector<std::string> lines;
    for (; list != nullptr; list = list->next)
        lines.emplace_back(list->data);
    return lines;
}

// A POST whose body is one ScriptedPart, handed back through `part`.
std::unique_ptr<RestRequest> ScriptedPost(const std::string& url, const std::string& body,
                                          std::shared_ptr<ScriptedPart>& part)
{
    auto request = std::make_unique<RestRequest>(RestRequest::Post, url, "tok", "text/xml");
    part = std::make_shared<ScriptedPart>(body);
    request->m_body.AddPart(part);
    return request;
}

// "Basic " and base64 of "orv:s3cret" / "orv:wrong".
const std::string kOrvSecret = "Basic b3J2OnMzY3JldA==";
const std::string kOrvWrong = "Basic b3J2Ondyb25n";

}  // namespace

class CurlNetworkExchange : public TransportTest {};

TEST_F(CurlNetworkExchange, HeaderListHoldsBothLinesEvenWithEmptyValues)
{
    GetRequest get("http://127.0.0.1:1/x", "");
    EXPECT_THAT(Lines(MakeHeaderList(get).get()), ElementsAre("Content-Type: ", "X-Orvane-Auth: "));

    BufferRequest post(RestRequest::Post, "http://127.0.0.1:1/x", "token-1", Text("<a/>"));
    EXPECT_THAT(Lines(MakeHeaderList(post).get()), ElementsAre("Content-Type: text/xml", "X-Orvane-Auth: token-1"));

    RestRequest typedGet(RestRequest::Get, "http://127.0.0.1:1/x", "", "text/plain");
    EXPECT_THAT(Lines(MakeHeaderList(typedGet).get()), ElementsAre("Content-Type: text/plain", "X-Orvane-Auth: "));
}

// libcurl leaves a line with an empty value off the wire; for a POST that same empty line
// also keeps libcurl's own form content type away.
TEST_F(CurlNetworkExchange, WireCarriesTheLinesWithValuesOnly)
{
    TestHttpServer server(Script().On("*", Response(200).Body("ok")));
    GetRequest bareGet(server.Url("/get-bare"), "");
    RestRequest typedGet(RestRequest::Get, server.Url("/get-typed"), "tok-get", "text/plain");
    RestRequest barePost(RestRequest::Post, server.Url("/post-bare"), "", "");
    barePost.m_body.AddPart(std::make_shared<RestIOPartBuffer>(Text("a=b")));
    BufferRequest xmlPost(RestRequest::Post, server.Url("/post-xml"), "tok-post", Text("<x/>"));
    struct Case {
        RestRequest* request;
        const char* method;
        std::vector<std::string> contentTypes;
        std::vector<std::string> tokens;
        const char* body;
    };
    const Case cases[] = {{&bareGet, "GET", {}, {}, ""},
                          {&typedGet, "GET", {"text/plain"}, {"tok-get"}, ""},
                          {&barePost, "POST", {}, {}, "a=b"},
                          {&xmlPost, "POST", {"text/xml"}, {"tok-post"}, "<x/>"}};
    CurlNetwork network;
    for (const Case& c : cases) {
        CountingReply reply;
        network.Send(*c.request, reply);
        EXPECT_EQ(200, reply.m_status);
        EXPECT_EQ("ok", reply.Text());
    }
    const auto requests = server.Requests();
    ASSERT_EQ(4u, requests.size());
    for (size_t i = 0; i < 4; ++i) {
        SCOPED_TRACE(requests[i].head);
        EXPECT_EQ(cases[i].method, requests[i].method);
        EXPECT_EQ(cases[i].contentTypes, requests[i].HeaderValues("Content-Type"));
        EXPECT_EQ(cases[i].tokens, requests[i].HeaderValues("X-Orvane-Auth"));
        EXPECT_EQ(cases[i].body, requests[i].body);
    }
}

// Both bodies go out with their size announced: a Content-Length equal to the body's size, no
// chunked framing, every byte in order (the file part streamed from disk).
TEST_F(CurlNetworkExchange, BodiesArriveWholeWithTheirLength)
{
    TempDirectory dir("orv-multipart");
    const std::string path = dir.File("sales.qrx");
    const std::string file = Pattern(4 * 1024 * 1024 + 5);
    WriteFileBytes(path, file);
    const std::string xml = "<tsRequest><datasource name=\"sales\"/></tsRequest>";
    const std::string buffer = Pattern(3 * 1024 * 1024 + 17);

    TestHttpServer server(Script().On("POST", "/upload", Response(201)));
    BufferRequest plain(RestRequest::Post, server.Url("/upload"), "tok", Text(buffer));
    MultipartRequest multipart(RestRequest::Post, server.Url("/upload"), "tok");
    multipart.AddBufferPayload(Text(xml));
    multipart.AddFilePayload("orvane_datasource", path);
    multipart.Finish();
    // The layout itself is proven in tests/rest; here the wire must carry exactly what the body yields.
    std::string expected(multipart.m_body.GetSize(), '\0');
    for (size_t at = 0, n = 1; n != 0 && at < expected.size(); at += n)
        n = multipart.m_body.Read(&expected[at], expected.size() - at);
    ASSERT_EQ(0, multipart.m_body.Seek(0));
    ASSERT_NE(std::string::npos, expected.find(file));
    CurlNetwork network;
    for (RestRequest* request : std::vector<RestRequest*>{&plain, &multipart}) {
        BufferReply reply;
        network.Send(*request, reply);
        EXPECT_EQ(201, reply.m_status);
    }

    const auto requests = server.Requests();
    ASSERT_EQ(2u, requests.size());
    const std::string* sent[] = {&buffer, &expected};
    for (size_t i = 0; i < 2; ++i) {
        const RecordedRequest& got = requests[i];
        EXPECT_THAT(got.HeaderValue("Content-Length"), Optional(StrEq(std::to_string(sent[i]->size()))));
        EXPECT_FALSE(got.HasHeader("Transfer-Encoding"));
        EXPECT_FALSE(got.chunked);
        EXPECT_TRUE(got.bodyComplete);
        EXPECT_EQ(Sha256Hex(*sent[i]), got.bodySha256);
        EXPECT_TRUE(got.body == *sent[i]) << "request " << i + 1;
    }
    EXPECT_THAT(requests[1].HeaderValue("Content-Type"), Optional(multipart.m_contentType));
}

class CurlNetworkAuthentication : public TransportTest {};

// Two transfers: the first meets the challenge; Send rewinds the body (rewind 1) and arms
// the stored credentials. With several schemes allowed libcurl opens the retried transfer
// with a probe without credentials, meets the challenge again, picks Basic, rewinds through
// the seek callback (rewind 2) and sends the credentials. Three requests, two transfers.
TEST_F(CurlNetworkAuthentication, BasicChallengeGetsOneMoreTransferWithStoredCredentials)
{
    TestHttpServer server(
        Script().On("POST", "/secure", Response(200).Body("welcome").RequireBasicAuth("orv", "s3cret")));
    const std::string body = Pattern(256 * 1024);
    std::shared_ptr<ScriptedPart> part;
    auto request = ScriptedPost(server.Url("/secure"), body, part);
    CurlNetwork network;
    network.SetProxyCredentials("orv", "s3cret");
    CountingReply reply;
    network.Send(*request, reply);

    EXPECT_EQ(200, reply.m_status);
    EXPECT_EQ("welcome", reply.Text());
    EXPECT_EQ(2, reply.clears);
    EXPECT_EQ(2, part->rewinds);
    const auto requests = server.Requests();
    ASSERT_EQ(3u, requests.size());
    EXPECT_EQ(401, requests[0].status);
    EXPECT_FALSE(requests[0].HasHeader("Authorization"));
    EXPECT_EQ(401, requests[1].status);
    EXPECT_FALSE(requests[1].HasHeader("Authorization"));
    EXPECT_EQ(200, requests[2].status);
    EXPECT_THAT(requests[2].HeaderValue("Authorization"), Optional(kOrvSecret));
    for (const auto& got : requests) {
        EXPECT_EQ("POST", got.method);
        EXPECT_TRUE(got.bodyComplete);
        EXPECT_EQ(Sha256Hex(body), got.bodySha256);
    }
}

// No retry for a scheme outside Basic, Negotiate and NTLM; and none after the one retry.
// Either way the 401 comes back with the last transfer's body alone.
TEST_F(CurlNetworkAuthentication, ChallengesBeyondTheOneRetryAreReturned)
{
    TestHttpServer server(
        Script()
            .On("/digest", Response::Challenge({"Digest realm=\"orv\", nonce=\"5f1c\", qop=\"auth\""}).Body("digest"))
            .On("/secure", Response(200).RequireBasicAuth("orv", "right", {"Basic realm=\"o\""}, "try again\n")));
    CurlNetwork network;
    network.SetProxyCredentials("orv", "wrong");
    std::shared_ptr<ScriptedPart> part;
    auto digest = ScriptedPost(server.Url("/digest"), "<x/>", part);
    CountingReply digestReply;
    network.Send(*digest, digestReply);
    EXPECT_EQ(401, digestReply.m_status);
    EXPECT_EQ("digest", digestReply.Text());
    EXPECT_EQ(1, digestReply.clears);
    EXPECT_EQ(0, part->rewinds);
    EXPECT_EQ(1u, server.RequestCount());

    auto secure = ScriptedPost(server.Url("/secure"), "<x/>", part);
    CountingReply secureReply;
    network.Send(*secure, secureReply);
    EXPECT_EQ(401, secureReply.m_status);
    EXPECT_EQ("try again\n", secureReply.Text());
    EXPECT_EQ(2, secureReply.clears);
    const auto requests = server.Requests();
    ASSERT_EQ(4u, requests.size());
    EXPECT_THAT(requests[3].HeaderValue("Authorization"), Optional(kOrvWrong));

    // The retry is per Send: the next one retries again, with the credentials stored now.
    network.SetProxyCredentials("orv", "right");
    auto again = ScriptedPost(server.Url("/secure"), "<x/>", part);
    CountingReply againReply;
    network.Send(*again, againReply);
    EXPECT_EQ(200, againReply.m_status);
    EXPECT_EQ(2, againReply.clears);
}

// The test server stands in as the HTTP proxy, so the effective URL can name no port and still
// reach loopback. A GET is retried too; its body is never read nor rewound. Port 0 parses but
// names no port a server can have: that retry is refused with the URL.
TEST_F(CurlNetworkAuthentication, ChallengeFromUrlWithoutPortIsRetriedAndPortZeroThrows)
{
    TestHttpServer server(Script().On("*", Response(200).Body("behind").RequireBasicAuth("orv", "s3cret")));
    ProxyEnvironment viaServer(server.BaseUrl());
    RestRequest request(RestRequest::Get, "http://orvane-noport.invalid/secure", "tok", "");
    auto part = std::make_shared<ScriptedPart>("never sent");
    request.m_body.AddPart(part);
    CurlNetwork network;
    network.SetProxyCredentials("orv", "s3cret");
    CountingReply reply;
    network.Send(request, reply);
    EXPECT_EQ(200, reply.m_status);
    EXPECT_EQ("behind", reply.Text());
    EXPECT_EQ(2, reply.clears);
    EXPECT_EQ(0, part->rewinds);
    const auto requests = server.Requests();
    ASSERT_FALSE(requests.empty());
    EXPECT_EQ("http://orvane-noport.invalid/secure", requests.back().target);
    EXPECT_EQ(0u, requests.back().bodyLength);
    EXPECT_THAT(requests.back().HeaderValue("Authorization"), Optional(kOrvSecret));

    const size_t before = server.RequestCount();
    GetRequest portZero("http://orvane-port.invalid:0/secure", "tok");
    try {
        network.Send(portZero, reply);
        FAIL() << "no exception, status " << reply.m_status;
    } catch (const CurlNetworkException& e) {
        EXPECT_STREQ("CurlNetwork: Invalid port for URL: http://orvane-port.invalid:0/secure", e.what());
    }
    EXPECT_EQ(before + 1, server.RequestCount());
}

TEST_F(CurlNetworkAuthentication, RefusedRewindBeforeTheRetryThrows)
{
    TestHttpServer server(Script().On("/secure", Response(200).RequireBasicAuth("orv", "s3cret")));
    std::shared_ptr<ScriptedPart> part;
    auto request = ScriptedPost(server.Url("/secure"), "<x/>", part);
    part->refuseSeek = true;
    CurlNetwork network;
    BufferReply reply;
    try {
        network.Send(*request, reply);
        FAIL() << "no exception";
    } catch (const CurlNetworkException& e) {
        EXPECT_EQ("CurlNetwork: Failed Rewind on URL: " + server.Url("/secure"), e.what());
    }
    EXPECT_EQ(1u, server.RequestCount());
}

class CurlNetworkRedirect : public TransportTest, public ::testing::WithParamInterface<int> {};

TEST_P(CurlNetworkRedirect, PostIsFollowedAsPostWithItsBody)
{
    const int status = GetParam();
    TestHttpServer server(Script()
                              .On("POST", "/old", Response::Redirect(status, "/new"))
                              .On("POST", "/new", Response(200).Body("moved")));
    const std::string body = Pattern(300 * 1024);
    BufferRequest request(RestRequest::Post, server.Url("/old"), "tok", Text(body));
    BufferReply reply;
    CurlNetwork().Send(request, reply);

    EXPECT_EQ(200, reply.m_status);
    EXPECT_EQ("moved", std::string(reply.m_data.begin(), reply.m_data.end()));
    const auto requests = server.Requests();
    ASSERT_EQ(2u, requests.size());
    EXPECT_EQ(status, requests[0].status);
    EXPECT_EQ("POST", requests[1].method);
    EXPECT_EQ("/new", requests[1].target);
    EXPECT_THAT(requests[1].HeaderValue("Content-Length"), Optional(StrEq(std::to_string(body.size()))));
    EXPECT_EQ(Sha256Hex(body), requests[1].bodySha256);
    EXPECT_THAT(requests[1].HeaderValue("X-Orvane-Auth"), Optional(StrEq("tok")));
}

INSTANTIATE_TEST_SUITE_P(Statuses, CurlNetworkRedirect, ::testing::Values(301, 302, 303));

class CurlNetworkFailure : public TransportTest {};

TEST_F(CurlNetworkFailure, ErrorStatusIsReturnedWithTheLastTransfersBodyOnly)
{
    TestHttpServer server(Script().Sequence("/flaky", {Response::Challenge({"Basic realm=\"o\""}).Body("first body"),
                                                       Response(500).Body("server failed")}));
    BufferRequest request(RestRequest::Post, server.Url("/flaky"), "tok", Text("<x/>"));
    CountingReply reply;
    CurlNetwork network;
    network.SetProxyCredentials("orv", "s3cret");
    network.Send(request, reply);

    EXPECT_EQ(500, reply.m_status);
    EXPECT_EQ("server failed", reply.Text());
    EXPECT_EQ(2, reply.clears);
}

TEST_F(CurlNetworkFailure, RefusedConnectionThrowsLibcurlsText)
{
    // Bound but not listening: the port stays ours and every connection to it is refused.
    const int socketFd = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(socketFd, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(0, bind(socketFd, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
    socklen_t length = sizeof(address);
    ASSERT_EQ(0, getsockname(socketFd, reinterpret_cast<sockaddr*>(&address), &length));
    const std::string url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/x";

    GetRequest request(url, "tok");
    BufferReply reply;
    try {
        CurlNetwork().Send(request, reply);
        ADD_FAILURE() << "no exception";
    } catch (const CurlNetworkException& e) {
        EXPECT_STREQ(curl_easy_strerror(CURLE_COULDNT_CONNECT), e.what());
    }
    close(socketFd);
}

TEST_F(CurlNetworkFailure, ConnectionCutMidUploadThrowsLibcurlsText)
{
    TestHttpServer server(Script().On("POST", "/cut", Response(200).ReadBodyBytes(64 * 1024).ResetWithoutAnswer()));
    BufferRequest request(RestRequest::Post, server.Url("/cut"), "tok", Text(Pattern(8 * 1024 * 1024)));
    BufferReply reply;
    try {
        CurlNetwork().Send(request, reply);
        FAIL() << "no exception";
    } catch (const CurlNetworkException& e) {
        EXPECT_THAT(e.what(),
                    AnyOf(StrEq(curl_easy_strerror(CURLE_SEND_ERROR)), StrEq(curl_easy_strerror(CURLE_RECV_ERROR)),
                          StrEq(curl_easy_strerror(CURLE_GOT_NOTHING))));
    }
    const auto requests = server.WaitForRequests(1);
    ASSERT_EQ(1u, requests.size());
    EXPECT_FALSE(requests[0].bodyComplete);
}

namespace {

class FullReply : public RestReply {
public:
    size_t Write(char*, size_t) override { throw std::length_error("reply full"); }
    void Clear() override {}
};

}  // namespace

// A body that fails to read, or a reply that fails to take the body, makes libcurl abort;
// Send then rethrows that very exception, and the same transport works normally afterwards.
TEST_F(CurlNetworkFailure, CallbackErrorsSurfaceUnchanged)
{
    TestHttpServer server(Script().On("POST", "/upload", Response(200).Body("stored")));
    std::shared_ptr<ScriptedPart> part;
    auto request = ScriptedPost(server.Url("/upload"), Pattern(1024 * 1024), part);
    part->failAt = 100 * 1024;
    CurlNetwork network;
    BufferReply reply;
    try {
        network.Send(*request, reply);
        ADD_FAILURE() << "no exception";
    } catch (RestIO::RestIOException& e) {
        EXPECT_STREQ("Failed to read from file: /scripted/part", e.what());
    }

    BufferRequest good(RestRequest::Post, server.Url("/upload"), "tok", Text("<x/>"));
    FullReply full;
    try {
        network.Send(good, full);
        ADD_FAILURE() << "no exception";
    } catch (const std::length_error& e) {
        EXPECT_STREQ("reply full", e.what());
    }

    BufferRequest fresh(RestRequest::Post, server.Url("/upload"), "tok", Text("<x/>"));
    BufferReply goodReply;
    network.Send(fresh, goodReply);
    EXPECT_EQ(200, goodReply.m_status);
    EXPECT_EQ(3u, server.WaitForRequests(3).size());
}

class NetworkFactorySeam : public TransportTest {};

TEST_F(NetworkFactorySeam, CreatorReplacesTheCurlTransport)
{
    ASSERT_NE(nullptr, std::dynamic_pointer_cast<CurlNetwork>(NetworkFactory::Create()));
    auto made = std::make_shared<CurlNetwork>();
    int calls = 0;
    NetworkFactory::s_creator = [&] {
        ++calls;
        return made;
    };
    EXPECT_EQ(made, NetworkFactory::Create());
    EXPECT_EQ(1, calls);
    NetworkFactory::s_creator = nullptr;
    EXPECT_NE(made, NetworkFactory::Create());
}
