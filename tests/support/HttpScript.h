#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace OrvaneTest {

// One scripted answer of the test HTTP server (tests/support/http_test_server.py explains
// every field). Strings are bytes: they reach the wire unchanged.
class Response {
public:
    explicit Response(int status = 200);

    // A redirect to `location` ("/path" on the same server; "{base}" expands to the server's
    // "http(s)://127.0.0.1:port").
    static Response Redirect(int status, const std::string& location);
    // A bare challenge: `status` with one WWW-Authenticate header per entry.
    static Response Challenge(const std::vector<std::string>& wwwAuthenticate, int status = 401);

    Response& Header(const std::string& name, const std::string& value);
    Response& Body(const std::string& bytes);

    // Chunked framing instead of Content-Length; 0: the whole body in one chunk.
    Response& Chunked(std::size_t chunkSize = 0);

    // Answers 401 with `challenges` until a request carries "Authorization: Basic" with these
    // credentials; only the accepted request uses the step up.
    Response& RequireBasicAuth(const std::string& user, const std::string& password,
                               const std::vector<std::string>& challenges = {"Basic realm=\"orvane-test\""},
                               const std::string& challengeBody = "Authentication required\n");

    // Request body handling; the default reads the whole body before answering.
    Response& AnswerBeforeBody();        // answer after the head, then drain and close
    Response& ReadBodyBytes(std::uint64_t count); // read at most `count` bytes before acting
    Response& WithoutContinue();         // leave "Expect: 100-continue" unanswered
    // Stop reading once `bytes` body bytes have arrived, until TestHttpServer::ReleaseHolds()
    // (or `limitSeconds` pass); the client's sending stalls meanwhile.
    Response& HoldBodyAt(std::uint64_t bytes, unsigned limitSeconds = 30);

    // Faults.
    Response& CloseWithoutAnswer();      // close (FIN) instead of answering
    Response& ResetWithoutAnswer();      // close with a TCP reset instead of answering
    Response& TruncateBody(std::size_t sentBytes); // announce the whole body, send only this much
    Response& OmitLastChunk();           // chunked answer without its terminating chunk

    std::string ToJson() const;

private:
    Response& Set(const std::string& key, const std::string& json);

    std::vector<std::pair<std::string, std::string>> m_fields; // key and JSON value, in order
    std::vector<std::pair<std::string, std::string>> m_headers;
};

// The routes of the test HTTP server. A route matches the request's path (a path holding '?'
// is compared with the whole request target; "*" matches anything) and, if given, its method.
// The first matching route answers with its responses in order, the last one repeating;
// requests that match no route get 404.
class Script {
public:
    Script& On(const std::string& path, const Response& response);
    Script& On(const std::string& method, const std::string& path, const Response& response);
    Script& Sequence(const std::string& path, const std::vector<Response>& responses,
                     const std::string& method = {});

    std::string ToJson() const;

private:
    struct Route {
        std::string method;
        std::string path;
        std::vector<Response> responses;
    };
    std::vector<Route> m_routes;
};

}  // namespace OrvaneTest
