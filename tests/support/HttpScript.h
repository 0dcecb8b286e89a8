#pragma once

#include <cstdint>
#include <optional>
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

    Response& Reason(const std::string& reason);
    Response& Header(const std::string& name, const std::string& value);
    Response& Body(const std::string& bytes);

    // Framing of the body; Content-Length is the default.
    Response& Chunked(std::size_t chunkSize = 0); // 0: the whole body in one chunk
    Response& UntilClose();                       // no length: the body ends with the connection
    Response& NoFraming();                        // only the headers given, nothing added
    Response& CloseConnection();                  // close the connection after this answer

    // Answers 401 with `challenges` until a request carries "Authorization: Basic" with these
    // credentials; only the accepted request uses the step up.
    Response& RequireBasicAuth(const std::string& user, const std::string& password,
                               const std::vector<std::string>& challenges = {"Basic realm=\"orvane-test\""},
                               const std::string& challengeBody = "Authentication required\n");

    // Request body handling; the default reads the whole body before answering.
    Response& AnswerBeforeBody();        // answer after the head, then drain and close
    Response& AnswerThenReadBody();      // answer first, then read and record the body
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
    int m_status;
    std::optional<std::string> m_reason;
    std::vector<std::pair<std::string, std::string>> m_headers;
    std::string m_body;
    std::string m_framing;
    std::size_t m_chunkSize = 0;
    bool m_close = false;
    std::optional<std::string> m_readBody;
    bool m_skipContinue = false;
    std::string m_fault;
    std::optional<std::size_t> m_truncateAt;
    std::optional<std::uint64_t> m_holdAt;
    unsigned m_holdLimit = 30;
    bool m_auth = false;
    std::string m_user;
    std::string m_password;
    std::vector<std::string> m_challenges;
    std::string m_challengeBody;
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

// JSON string literal of `bytes`, quotes included; bytes from 0x80 up pass through unchanged.
std::string JsonString(const std::string& bytes);

}  // namespace OrvaneTest
