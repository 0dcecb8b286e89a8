#include "tests/support/CurlCall.h"
#include "tests/support/TestHttpServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <poll.h>
#include <openssl/evp.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <thread>

using namespace OrvaneTest;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

std::string Sha256Hex(const std::string& bytes)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_sha256(), nullptr);
    static const char hex[] = "0123456789abcdef";
    std::string out;
    for (unsigned int i = 0; i < length; ++i) {
        out += hex[digest[i] >> 4];
        out += hex[digest[i] & 15];
    }
    return out;
}

std::string Pattern(std::size_t size)
{
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<char>((i * 7 + i / 251) & 0xff);
    }
    return bytes;
}

CurlCall Get(const std::string& url)
{
    CurlCall call;
    call.url = url;
    return call;
}

CurlCall Post(const std::string& url, const std::string& body)
{
    CurlCall call;
    call.url = url;
    call.post = true;
    call.body = body;
    return call;
}

}  // namespace

TEST(TestHttpServer, AnswersWithScriptedStatusHeadersAndBody)
{
    Script script;
    script.On("/fixed", Response(201).Reason("Made").Header("X-One", "1").Header("X-One", "2").Body("hello"))
        .On("/empty", Response(200))
        .On("/chunked", Response(200).Body("0123456789").Chunked(3))
        .On("/query?a=1", Response(202).Body("exact target"))
        .Sequence("/seq", {Response(500).Body("first"), Response(200).Body("then")});
    TestHttpServer server(script);

    CurlResult fixed = Perform(Get(server.Url("/fixed")));
    ASSERT_EQ(CURLE_OK, fixed.code) << fixed.error;
    EXPECT_EQ(201, fixed.status);
    EXPECT_EQ("hello", fixed.body);
    EXPECT_THAT(fixed.headerLines, ElementsAre("HTTP/1.1 201 Made", "X-One: 1", "X-One: 2", "Content-Length: 5"));

    CurlResult empty = Perform(Get(server.Url("/empty")));
    ASSERT_EQ(CURLE_OK, empty.code) << empty.error;
    EXPECT_EQ(200, empty.status);
    EXPECT_EQ("", empty.body);
    EXPECT_THAT(empty.headerLines, ElementsAre("HTTP/1.1 200 OK", "Content-Length: 0"));

    CurlResult chunked = Perform(Get(server.Url("/chunked")));
    ASSERT_EQ(CURLE_OK, chunked.code) << chunked.error;
    EXPECT_EQ("0123456789", chunked.body);
    EXPECT_THAT(chunked.headerLines, ElementsAre("HTTP/1.1 200 OK", "Transfer-Encoding: chunked"));

    EXPECT_EQ(202, Perform(Get(server.Url("/query?a=1"))).status);
    CurlResult otherQuery = Perform(Get(server.Url("/query?a=2")));
    EXPECT_EQ(404, otherQuery.status);
    EXPECT_EQ("no route for GET /query?a=2\n", otherQuery.body);

    std::vector<long> statuses;
    for (int i = 0; i < 3; ++i) {
        statuses.push_back(Perform(Get(server.Url("/seq"))).status);
    }
    EXPECT_THAT(statuses, ElementsAre(500, 200, 200));
}

TEST(TestHttpServer, RecordsHeadersInArrivalOrderAndBodyBytes)
{
    TestHttpServer server(Script().On("POST", "/upload", Response(200)));
    const std::string body = std::string("line\r\n\0binary\xff\x80", 16) + Pattern(3000);

    CurlCall plain = Post(server.Url("/upload?kind=plain"), body);
    plain.headers = {"X-Dup: a", "x-case: Mixed Value", "X-Dup:   b  ", "Expect:"};
    ASSERT_EQ(200, Perform(plain).status);

    CurlCall chunked = Post(server.Url("/upload"), body);
    chunked.chunkedUpload = true;
    chunked.headers = {"Expect: 100-continue"};
    CurlResult chunkedResult = Perform(chunked);
    ASSERT_EQ(200, chunkedResult.status);
    EXPECT_THAT(chunkedResult.statusLines, ElementsAre("HTTP/1.1 100 Continue", "HTTP/1.1 200 OK"));

    std::vector<RecordedRequest> requests = server.Requests();
    ASSERT_EQ(2u, requests.size());

    const RecordedRequest& first = requests[0];
    EXPECT_EQ(1u, first.index);
    EXPECT_EQ("POST", first.method);
    EXPECT_EQ("/upload?kind=plain", first.target);
    EXPECT_EQ("/upload", first.Path());
    EXPECT_EQ("HTTP/1.1", first.version);
    EXPECT_EQ(0u, first.head.find("POST /upload?kind=plain HTTP/1.1\r\n"));
    EXPECT_EQ(first.head.size() - 4, first.head.find("\r\n\r\n"));
    EXPECT_THAT(first.head, HasSubstr("\r\nX-Dup: a\r\nx-case: Mixed Value\r\nX-Dup:   b  \r\n"));
    EXPECT_THAT(first.HeaderValues("x-dup"), ElementsAre("a", "b"));
    EXPECT_EQ("Mixed Value", first.HeaderValue("X-CASE").value_or("<absent>"));
    EXPECT_EQ(std::to_string(body.size()), first.HeaderValue("content-length").value_or("<absent>"));
    EXPECT_FALSE(first.HasHeader("Expect"));
    EXPECT_FALSE(first.chunked);
    EXPECT_TRUE(first.bodyComplete);
    EXPECT_FALSE(first.continueSent);
    EXPECT_EQ(body, first.body);
    EXPECT_EQ(body.size(), first.bodyLength);
    EXPECT_EQ(Sha256Hex(body), first.bodySha256);
    EXPECT_EQ(200, first.status);

    const RecordedRequest& second = requests[1];
    EXPECT_TRUE(second.chunked);
    EXPECT_TRUE(second.continueSent);
    EXPECT_TRUE(second.bodyComplete);
    EXPECT_EQ(body, second.body);
    EXPECT_EQ("chunked", second.HeaderValue("Transfer-Encoding").value_or("<absent>"));
}

TEST(TestHttpServer, StreamsLargeBodiesToDigestWithoutStoringThem)
{
    ServerOptions options;
    options.storeBodies = false;
    TestHttpServer server(Script().On("/big", Response(200)), options);
    const std::string body = Pattern(24u << 20);

    ASSERT_EQ(200, Perform(Post(server.Url("/big"), body)).status);

    std::vector<RecordedRequest> requests = server.Requests();
    ASSERT_EQ(1u, requests.size());
    EXPECT_EQ(body.size(), requests[0].bodyLength);
    EXPECT_EQ(Sha256Hex(body), requests[0].bodySha256);
    EXPECT_TRUE(requests[0].bodyComplete);
    EXPECT_EQ("", requests[0].bodyFile);
    EXPECT_EQ("", requests[0].body);
}

TEST(TestHttpServer, BasicChallengeAcceptsOnlyTheConfiguredCredentials)
{
    const std::vector<std::string> challenges = {"Basic realm=\"orv\"", "Digest realm=\"orv\", nonce=\"abc\"",
                                                 "Negotiate", "NTLM"};
    Script script;
    script.Sequence("/private", {Response(200).Body("welcome").RequireBasicAuth("alice", "s3cret", challenges),
                                 Response(500).Body("second step")});
    TestHttpServer server(script);

    CurlResult anonymous = Perform(Get(server.Url("/private")));
    ASSERT_EQ(CURLE_OK, anonymous.code) << anonymous.error;
    EXPECT_EQ(401, anonymous.status);
    EXPECT_EQ("Authentication required\n", anonymous.body);
    EXPECT_EQ(CURLAUTH_BASIC | CURLAUTH_DIGEST | CURLAUTH_NEGOTIATE | CURLAUTH_NTLM, anonymous.authAvailable);

    CurlCall wrong = Get(server.Url("/private"));
    wrong.user = "alice";
    wrong.password = "guess";
    EXPECT_EQ(401, Perform(wrong).status);

    CurlCall right = wrong;
    right.password = "s3cret";
    CurlResult accepted = Perform(right);
    EXPECT_EQ(200, accepted.status);
    EXPECT_EQ("welcome", accepted.body);
    // Acceptance, unlike a challenge, uses the step up.
    EXPECT_EQ(500, Perform(right).status);

    std::vector<RecordedRequest> requests = server.Requests();
    ASSERT_EQ(4u, requests.size());
    EXPECT_FALSE(requests[0].HasHeader("Authorization"));
    EXPECT_EQ("Basic YWxpY2U6Z3Vlc3M=", requests[1].HeaderValue("authorization").value_or("<absent>"));
    EXPECT_EQ("Basic YWxpY2U6czNjcmV0", requests[2].HeaderValue("authorization").value_or("<absent>"));
    EXPECT_EQ(401, requests[0].status);
    EXPECT_EQ(401, requests[1].status);
    EXPECT_EQ(200, requests[2].status);
}

TEST(TestHttpServer, RedirectedPostIsSentAgainToTheNewPath)
{
    Script script;
    script.On("/from301", Response::Redirect(301, "/to"))
        .On("/from302", Response::Redirect(302, "/to"))
        .On("/from303", Response::Redirect(303, "{base}/to"))
        .On("/to", Response(200).Body("landed"));
    TestHttpServer server(script);

    for (const char* from : {"/from301", "/from302", "/from303"}) {
        SCOPED_TRACE(from);
        std::size_t before = server.RequestCount();
        CurlCall call = Post(server.Url(from), "payload");
        call.follow = true;
        CurlResult result = Perform(call);
        ASSERT_EQ(CURLE_OK, result.code) << result.error;
        EXPECT_EQ(200, result.status);
        EXPECT_EQ("landed", result.body);
        EXPECT_EQ(server.Url("/to"), result.effectiveUrl);

        std::vector<RecordedRequest> requests = server.Requests();
        ASSERT_EQ(before + 2, requests.size());
        EXPECT_EQ(from, requests[before].target);
        EXPECT_EQ("/to", requests[before + 1].target);
        EXPECT_EQ("POST", requests[before + 1].method);
        EXPECT_EQ("payload", requests[before + 1].body);
    }
}

TEST(TestHttpServer, ClosesTheConnectionInsteadOfAnswering)
{
    Script script;
    script.On("/midbody", Response(200).ReadBodyBytes(4).CloseWithoutAnswer())
        .On("/afterhead", Response(200).AnswerBeforeBody().CloseWithoutAnswer())
        .On("/afterbody", Response(200).CloseWithoutAnswer())
        .On("/reset", Response(200).ResetWithoutAnswer());
    TestHttpServer server(script);
    const std::string body = Pattern(100);

    CurlResult afterBody = Perform(Post(server.Url("/afterbody"), body));
    EXPECT_EQ(CURLE_GOT_NOTHING, afterBody.code) << afterBody.error;
    for (const char* path : {"/midbody", "/afterhead", "/reset"}) {
        SCOPED_TRACE(path);
        CurlResult result = Perform(Post(server.Url(path), body));
        EXPECT_NE(CURLE_OK, result.code);
        EXPECT_EQ(0, result.status);
    }

    std::vector<RecordedRequest> requests = server.WaitForRequests(4);
    ASSERT_EQ(4u, requests.size());
    EXPECT_EQ(100u, requests[0].bodyLength);
    EXPECT_TRUE(requests[0].bodyComplete);
    EXPECT_EQ(body.substr(0, 4), requests[1].body);
    EXPECT_FALSE(requests[1].bodyComplete);
    EXPECT_EQ(0u, requests[2].bodyLength);
    EXPECT_FALSE(requests[2].bodyComplete);
    for (const auto& request : requests) {
        EXPECT_EQ(0, request.status) << request.target;
    }
}

TEST(TestHttpServer, InjectsReplyAndContinueFaults)
{
    Script script;
    script.On("/truncated", Response(200).Body("0123456789").TruncateBody(4))
        .On("/lastchunk", Response(200).Body("0123456789").Chunked(4).OmitLastChunk())
        .On("/early", Response(413).Body("too large").AnswerBeforeBody())
        .On("/nocontinue", Response(200).WithoutContinue())
        .On("/readlater", Response(202).Body("accepted").AnswerThenReadBody());
    TestHttpServer server(script);

    CurlResult truncated = Perform(Get(server.Url("/truncated")));
    EXPECT_EQ(CURLE_PARTIAL_FILE, truncated.code) << truncated.error;
    EXPECT_EQ("0123", truncated.body);
    CurlResult lastChunk = Perform(Get(server.Url("/lastchunk")));
    EXPECT_EQ(CURLE_PARTIAL_FILE, lastChunk.code) << lastChunk.error;
    EXPECT_EQ("0123456789", lastChunk.body);

    const std::string body = Pattern(200000);
    CurlCall early = Post(server.Url("/early"), body);
    early.headers = {"Expect: 100-continue"};
    CurlResult earlyResult = Perform(early);
    ASSERT_EQ(CURLE_OK, earlyResult.code) << earlyResult.error;
    EXPECT_EQ(413, earlyResult.status);
    EXPECT_EQ("too large", earlyResult.body);

    CurlCall waiting = Post(server.Url("/nocontinue"), body);
    waiting.headers = {"Expect: 100-continue"};
    waiting.expectTimeoutMs = 50; // the client gives up waiting and sends the body anyway
    CurlResult waited = Perform(waiting);
    EXPECT_EQ(200, waited.status);
    EXPECT_THAT(waited.statusLines, ElementsAre("HTTP/1.1 200 OK"));

    CurlResult later = Perform(Post(server.Url("/readlater"), "sent after the answer"));
    EXPECT_EQ(202, later.status);
    EXPECT_EQ("accepted", later.body);

    std::vector<RecordedRequest> requests = server.WaitForRequests(5);
    ASSERT_EQ(5u, requests.size());
    EXPECT_FALSE(requests[2].continueSent);
    EXPECT_EQ(0u, requests[2].bodyLength);
    EXPECT_EQ(413, requests[2].status);
    EXPECT_FALSE(requests[3].continueSent);
    EXPECT_TRUE(requests[3].bodyComplete);
    EXPECT_EQ(body.size(), requests[3].bodyLength);
    EXPECT_EQ("sent after the answer", requests[4].body);
    EXPECT_TRUE(requests[4].bodyComplete);
}

TEST(TestHttpServer, HoldsTheBodyUntilReleasedOrUntilItsLimit)
{
    Script script;
    script.On("/expires", Response(201).HoldBodyAt(10, 1)).On("/held", Response(202).HoldBodyAt(1000));
    TestHttpServer server(script);
    const std::string body = Pattern(4 * 1024 * 1024);

    // Never released: the server reads on by itself after a second.
    CurlResult expired = Perform(Post(server.Url("/expires"), "0123456789abcdef"));
    EXPECT_EQ(201, expired.status) << expired.error;

    CurlResult held;
    std::thread client([&] { held = Perform(Post(server.Url("/held"), body)); });
    const bool wasHeld = server.WaitForHold(2);
    // Held: the request is not finished, so it has no record yet.
    const std::size_t recordedWhileHeld = server.RequestCount();
    server.ReleaseHolds();
    client.join();
    ASSERT_TRUE(wasHeld);
    EXPECT_EQ(1u, recordedWhileHeld);
    EXPECT_EQ(202, held.status) << held.error;

    std::vector<RecordedRequest> requests = server.Requests();
    ASSERT_EQ(2u, requests.size());
    EXPECT_EQ("0123456789abcdef", requests[0].body);
    EXPECT_TRUE(requests[1].bodyComplete);
    EXPECT_TRUE(body == requests[1].body);
    EXPECT_THAT(server.Events(), ::testing::IsSupersetOf({"held 1 10", "hold-expired 1", "held 2 1000", "released 2"}));
}

TEST(TestHttpServer, TlsCertificateIsRefusedByDefaultAndAcceptedWhenTrusted)
{
    ServerOptions options;
    options.tls = true;
    TestHttpServer server(Script().On("/secure", Response(200).Body("secret")), options);
    ASSERT_EQ(0u, server.BaseUrl().find("https://127.0.0.1:"));
    ASSERT_FALSE(server.CertificateFile().empty());

    CurlResult refused = Perform(Get(server.Url("/secure")));
    EXPECT_EQ(CURLE_PEER_FAILED_VERIFICATION, refused.code) << refused.error;

    CurlCall trusting = Get(server.Url("/secure"));
    trusting.caFile = server.CertificateFile();
    CurlResult accepted = Perform(trusting);
    ASSERT_EQ(CURLE_OK, accepted.code) << accepted.error;
    EXPECT_EQ("secret", accepted.body);

    std::vector<RecordedRequest> requests = server.Requests();
    ASSERT_EQ(1u, requests.size());
    EXPECT_TRUE(requests[0].tls);
    EXPECT_EQ(2u, server.ConnectionCount());
    EXPECT_THAT(server.Events(), ::testing::Contains(HasSubstr("tls-failed 1 ")));
}

TEST(TestHttpServer, AnswersWhileAnotherConnectionStalls)
{
    TestHttpServer server(Script().On("/", Response(200).Body("free")));

    int stalled = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(stalled, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(server.Port());
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(0, connect(stalled, reinterpret_cast<sockaddr*>(&address), sizeof address));
    const char partial[] = "POST / HTTP/1.1\r\nHost: 127.0.0.1\r\n";
    ASSERT_EQ(static_cast<ssize_t>(sizeof partial - 1), write(stalled, partial, sizeof partial - 1));

    CurlResult result = Perform(Get(server.Url("/")));
    close(stalled);
    ASSERT_EQ(CURLE_OK, result.code) << result.error;
    EXPECT_EQ("free", result.body);
}

TEST(TestHttpServer, DropsAConnectionSilentForItsIdleTimeout)
{
    ServerOptions options;
    options.idleTimeoutSeconds = 1;
    TestHttpServer server(Script().On("/", Response(200)), options);

    int silent = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(silent, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(server.Port());
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(0, connect(silent, reinterpret_cast<sockaddr*>(&address), sizeof address));
    // Three of the ten body bytes announced, then nothing.
    const char partial[] = "POST / HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: 10\r\n\r\nabc";
    ASSERT_EQ(static_cast<ssize_t>(sizeof partial - 1), write(silent, partial, sizeof partial - 1));
    // The server closes without an answer; bounded in case it never does.
    pollfd ready{silent, POLLIN, 0};
    const int polled = poll(&ready, 1, 20000);
    char byte = 0;
    const ssize_t got = polled == 1 ? read(silent, &byte, 1) : -1;
    close(silent);
    EXPECT_EQ(0, got);

    std::vector<RecordedRequest> requests = server.WaitForRequests(1);
    ASSERT_EQ(1u, requests.size());
    EXPECT_EQ(3u, requests[0].bodyLength);
    EXPECT_FALSE(requests[0].bodyComplete);
    EXPECT_THAT(server.Events(), ::testing::Contains("io-error 1 timed out"));
}

TEST(TestHttpServer, ReportsAServerThatCannotStart)
{
    try {
        TestHttpServer server(std::string("{\"routes\": [unterminated"));
        FAIL() << "the server started with a broken script";
    } catch (const std::runtime_error& error) {
        EXPECT_THAT(error.what(), HasSubstr("before listening"));
        EXPECT_THAT(error.what(), HasSubstr("JSONDecodeError"));
    }
}

TEST(TestHttpServer, DestructionStopsTheServerAndRemovesItsFiles)
{
    pid_t pid = -1;
    std::string directory;
    {
        TestHttpServer server(Script().On("/", Response(200)));
        pid = server.ProcessId();
        directory = server.Directory();
        ASSERT_EQ(0, kill(pid, 0));
        ASSERT_EQ(200, Perform(Get(server.Url("/"))).status);
    }
    errno = 0;
    EXPECT_EQ(-1, kill(pid, 0)); // reaped, not a zombie
    EXPECT_EQ(ESRCH, errno);
    struct stat info {};
    EXPECT_NE(0, stat(directory.c_str(), &info));
}
