// Faults of the server and of the extract file met through the exported
// functions: each gives its result code and last-error text and the same
// handle publishes right afterwards. Also: upload bodies of exactly the
// announced length at the sizes where buffers and 32-bit counts turn over.
#include "CapiTestSupport.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <set>

using namespace CapiTest;

namespace {

constexpr std::size_t kMiB = 1024 * 1024;
using Outcome = std::pair<ORV_RESULT, std::string>;
const Outcome kOk{ORV_RESULT_Success, "untouched"};

using FaultInjectionTest = StartedTest;
using BodyLengthTest = StartedTest;

// A handle of its own, signed in to `server`.
class SignedIn {
public:
    explicit SignedIn(const TestHttpServer& server)
    {
        EXPECT_TRUE(m_connection.Create() == ORV_RESULT_Success &&
                    m_connection.Connect(server.BaseUrl(), "user", "pw") == ORV_RESULT_Success)
            << LastError();
    }
    Outcome Publish(const std::string& path, const std::string& name = "d")
    {
        OrvSetLastErrorMessage(L"untouched");
        const ORV_RESULT result = m_connection.Publish(path, "Sales", name, 0);
        return {result, LastError()};
    }
    // The publish after a fault: the handle is still signed in and works.
    void ExpectUsable(const std::string& path) { EXPECT_EQ(kOk, Publish(path, "again")); }
    void* Handle() const { return m_connection.Handle(); }

private:
    Connection m_connection;
};

std::string Repeat(const std::string& piece, std::size_t times)
{
    std::string out;
    for (std::size_t i = 0; i < times; ++i)
        out += piece;
    return out;
}

void ExpectWholeAsAnnounced(const RecordedRequest& request)
{
    EXPECT_TRUE(request.bodyComplete);
    EXPECT_FALSE(request.chunked);
    EXPECT_EQ(std::to_string(request.bodyLength), request.HeaderValue("Content-Length").value_or(""));
}

}  // namespace

// The upload's answer is broken; the body itself went out whole. Transport
// failures carry libcurl's text, statuses name the status, replies that are
// not the publish reply leave the text empty.
TEST_F(FaultInjectionTest, BrokenRepliesToTheUploadGiveTheirCodeAndLeaveTheSessionUsable)
{
    const std::string good = kPublishReply;
    const std::string bomb = "<?xml version=\"1.0\"?><!DOCTYPE qsResponse [<!ENTITY a \"" + Repeat("a", 1000) +
                             "\"><!ENTITY b \"" + Repeat("&a;", 1000) + "\"><!ENTITY c \"" + Repeat("&b;", 1000) +
                             "\">]><qsResponse><datasource name=\"&c;\"/></qsResponse>";
    const struct {
        std::string what;
        Response reply;
        Outcome expected;
    } faults[] = {
        {"closed after the body, no answer", Response(201).CloseWithoutAnswer(),
         {400, "Server returned nothing (no headers, no data)"}},
        {"body shorter than its Content-Length", Response(201).Body(good).TruncateBody(30),
         {400, "Transferred a partial file"}},
        {"chunked without its last chunk", Response(201).Body(good).Chunked(16).OmitLastChunk(),
         {400, "Transferred a partial file"}},
        {"XML cut inside a tag", Response(201).Body(good.substr(0, 40)), {300, ""}},
        {"empty 201", Response(201), {300, ""}},
        {"non-XML error page", Response(500).Body("<html><body>Internal <b>error</body>"),
         {401, "Server Response Code: 500"}},
        {"200 carrying the sign-in reply", Response(200).Body(kSignInReply), {403, ""}},
        {"200 carrying the project page", Response(200).Body(kProjectsReply), {403, ""}},
        {"200 carrying an error document", Response(200).Body("<error code=\"1\"><summary>no</summary></error>"),
         {403, ""}},
        {"huge non-XML 200", Response(200).Body(Repeat("not xml ", 5 * kMiB / 2)), {300, ""}},
        {"deeply nested 200", Response(200).Body("<qsResponse><datasource><tags>" + Repeat("<tag>", 200000)),
         {403, ""}},
        {"entity expansion", Response(201).Body(bomb), {300, ""}},
        {"huge well-formed reply",
         Response(201).Body("<qsResponse><datasource><tags>" + Repeat("<tag label=\"x\"/>", 5 * kMiB / 4) +
                            "</tags></datasource></qsResponse>"),
         kOk},
    };
    // One server for the whole table: each fault is followed by a good answer.
    std::vector<Response> answers;
    for (const auto& fault : faults)
        answers.insert(answers.end(), {fault.reply, Response(201).Body(kPublishReply)});
    TestHttpServer server(PublishScript(answers));
    const std::string path = Extract("reply.qrx", Bytes(100 * 1024, 1));
    SignedIn session(server);
    for (const auto& fault : faults) {
        SCOPED_TRACE(fault.what);
        EXPECT_EQ(fault.expected, session.Publish(path));
        session.ExpectUsable(path);
    }
    const std::vector<RecordedRequest> uploads = Uploads(server.Requests(false));
    ASSERT_EQ(answers.size(), uploads.size());
    for (const RecordedRequest& upload : uploads)
        ExpectWholeAsAnnounced(upload);

    // The caller sees the status only; the error page and libcurl's text are in the log.
    const std::string log = StopAndReadLog();
    for (const char* line : {"): Server Response Code: 500\n", "): Response:\n", "): <html><body>Internal <b>error</body>\n",
                             "): Curl Error:\n", "): Transferred a partial file\n"})
        EXPECT_NE(std::string::npos, log.find(line)) << line;
}

// The server gives up on the upload while the body is still on its way.
TEST_F(FaultInjectionTest, UploadCutOffWhileTheBodyIsSentFailsAndTheNextOneGoesThrough)
{
    const Outcome sendFailed{400, "Failed sending data to the peer"};
    const Outcome receiveFailed{400, "Failure when receiving data from the peer"};
    const struct {
        std::string what;
        Response fault;
        std::size_t fileSize;
        std::set<Outcome> expected;
    } cases[] = {
        {"reset after 64 KiB of the body", Response(201).ReadBodyBytes(64 * 1024).ResetWithoutAnswer(), 8 * kMiB,
         {sendFailed, receiveFailed}},
        {"closed after 64 KiB of the body", Response(201).ReadBodyBytes(64 * 1024).CloseWithoutAnswer(), 8 * kMiB,
         {sendFailed, receiveFailed, {400, "Server returned nothing (no headers, no data)"}}},
        {"500 before the body is read", Response(500).Body("<error/>").AnswerBeforeBody(), 512 * 1024,
         {{401, "Server Response Code: 500"}}},
        {"413 before the body is read", Response(413).Body("too large").AnswerBeforeBody(), 8 * kMiB,
         {{401, "Server Response Code: 413"}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        TestHttpServer server(PublishScript({c.fault, Response(201).Body(kPublishReply)}));
        const std::string path = Extract("cut.qrx", Bytes(c.fileSize, 2));
        SignedIn session(server);
        const Outcome outcome = session.Publish(path);
        EXPECT_EQ(1u, c.expected.count(outcome)) << outcome.first << " " << outcome.second;
        session.ExpectUsable(path);
        const std::vector<RecordedRequest> uploads = Uploads(server.WaitForRequests(4));
        ASSERT_EQ(2u, uploads.size());
        EXPECT_FALSE(uploads[0].bodyComplete);
        EXPECT_TRUE(uploads[1].bodyComplete);
    }
}

// Refused on every try: the challenge is answered once, with the handle's
// credentials, and the whole body goes out each time; the last refusal stands.
// With the right credentials the same upload goes through.
TEST_F(FaultInjectionTest, UploadRefusedOnEveryTryIsRetriedOnceWithCredentialsAndTheWholeBody)
{
    TestHttpServer server(PublishScript(
        {Response(201).Body(kPublishReply).RequireBasicAuth("uploader", "right", {"Basic realm=\"uploads\""})}));
    const std::string path = Extract("refused.qrx", Bytes(300 * 1024, 3));
    SignedIn session(server);
    const std::vector<std::string> passwords{"wrong", "right"};
    const std::vector<Outcome> outcomes{{401, "Server Response Code: 401"}, kOk};
    for (std::size_t p = 0; p < 2; ++p) {
        ASSERT_EQ(ORV_RESULT_Success, OrvServerConnectionSetProxyCredentials(session.Handle(), U("uploader").c_str(),
                                                                             U(passwords[p]).c_str()));
        EXPECT_EQ(outcomes[p], session.Publish(path));
    }
    // Two transfers per publish. With several schemes allowed, libcurl opens the
    // second with a request of its own without credentials, so a publish makes
    // two or three requests; only its last one authenticates.
    std::vector<std::vector<RecordedRequest>> publishes(1);
    for (const RecordedRequest& upload : Uploads(server.Requests(false))) {
        publishes.back().push_back(upload);
        if (upload.HasHeader("Authorization"))
            publishes.emplace_back();
    }
    publishes.pop_back();
    ASSERT_EQ(2u, publishes.size());
    const std::vector<std::string> sent{"Basic dXBsb2FkZXI6d3Jvbmc=", "Basic dXBsb2FkZXI6cmlnaHQ="};
    for (std::size_t p = 0; p < 2; ++p) {
        SCOPED_TRACE(p);
        const std::vector<RecordedRequest>& requests = publishes[p];
        ASSERT_GE(requests.size(), 2u);
        EXPECT_LE(requests.size(), 3u);
        EXPECT_EQ(sent[p], requests.back().HeaderValue("Authorization").value_or(""));
        EXPECT_EQ(p == 0 ? 401 : 201, requests.back().status);
        for (const RecordedRequest& request : requests) {
            ExpectWholeAsAnnounced(request);
            EXPECT_EQ(requests[0].bodySha256, request.bodySha256);
            EXPECT_EQ(requests[0].HeaderValue("Content-Type"), request.HeaderValue("Content-Type"));
        }
    }
}

// A POST redirected with 301, 302 and 303 stays a POST with the same body and token.
TEST_F(FaultInjectionTest, UploadFollowsRedirectChainsAsAPostWithTheSameBody)
{
    TestHttpServer server(PublishScript({Response::Redirect(301, "/moved/once")})
                              .On("POST", "/moved/once", Response::Redirect(302, "{base}/moved/twice"))
                              .On("POST", "/moved/twice", Response::Redirect(303, "/moved/last"))
                              .On("POST", "/moved/last", Response(201).Body(kPublishReply)));
    SignedIn session(server);
    for (const std::string& file : {Extract("empty.qrx", ""), Extract("moved.qrx", Bytes(700 * 1024, 4))}) {
        SCOPED_TRACE(file);
        const std::size_t before = Uploads(server.Requests(false)).size();
        EXPECT_EQ(kOk, session.Publish(file));
        const std::vector<RecordedRequest> all = Uploads(server.Requests(false));
        ASSERT_EQ(before + 4, all.size());
        const std::vector<std::string> targets{kUploadPath, "/moved/once", "/moved/twice", "/moved/last"};
        for (std::size_t i = 0; i < 4; ++i) {
            const RecordedRequest& upload = all[before + i];
            EXPECT_EQ(targets[i], upload.target);
            EXPECT_EQ("POST", upload.method);
            ExpectWholeAsAnnounced(upload);
            EXPECT_EQ(all[before].bodySha256, upload.bodySha256);
            EXPECT_EQ(std::string(kToken), upload.HeaderValue("X-Orvane-Auth").value_or(""));
        }
    }
}

// Bodies above 1 MiB ask for "100 Continue" first: answered, unanswered
// (libcurl sends after its own wait), or refused before the body.
TEST_F(FaultInjectionTest, ContinueAnsweredWithHundredWithSilenceOrWithAnError)
{
    TestHttpServer server(PublishScript({Response(201).Body(kPublishReply),
                                         Response(201).Body(kPublishReply).WithoutContinue(),
                                         Response(417).Body("no").AnswerBeforeBody(),
                                         Response(201).Body(kPublishReply)}));
    const std::string path = Extract("large.qrx", Bytes(2 * kMiB, 5));
    SignedIn session(server);
    EXPECT_EQ(kOk, session.Publish(path));
    EXPECT_EQ(kOk, session.Publish(path));
    EXPECT_EQ(Outcome(401, "Server Response Code: 417"), session.Publish(path));
    session.ExpectUsable(path);

    const std::vector<RecordedRequest> uploads = Uploads(server.WaitForRequests(6));
    ASSERT_EQ(4u, uploads.size());
    const std::vector<bool> continued{true, false, false, true};
    const std::vector<bool> complete{true, true, false, true};
    for (std::size_t i = 0; i < uploads.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ("100-continue", uploads[i].HeaderValue("Expect").value_or(""));
        EXPECT_EQ(continued[i], uploads[i].continueSent);
        EXPECT_EQ(complete[i], uploads[i].bodyComplete);
    }
    EXPECT_EQ(0u, uploads[2].bodyLength);
}

// Only a regular file, or a link to one, is uploaded; a directory, FIFO or
// socket of a matching name is refused like a missing file before it is opened
// (opening a FIFO would wait for a writer forever).
TEST_F(FaultInjectionTest, ExtractThatIsNotARegularFileIsRefusedBeforeItIsOpened)
{
    TestHttpServer server(PublishScript({Response(201).Body(kPublishReply)}));
    const std::string link = m_dir.File("link.qrx");
    ASSERT_EQ(0, ::symlink(Extract("good.qrx", "good").c_str(), link.c_str()));
    const std::string folder = m_dir.File("folder.qrx");
    ASSERT_TRUE(std::filesystem::create_directory(folder));
    const std::string fifo = m_dir.File("pipe.qrx");
    ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
    const std::string socketPath = m_dir.File("socket.qrx");
    const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    ASSERT_LT(socketPath.size(), sizeof address.sun_path);
    std::copy(socketPath.begin(), socketPath.end(), address.sun_path);
    ASSERT_EQ(0, ::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address));

    SignedIn session(server);
    for (const std::string& path : {folder, fifo, socketPath}) {
        SCOPED_TRACE(path);
        std::atomic<bool> done{false};
        Outcome outcome{-1, ""};
        std::thread publish([&] {
            outcome = session.Publish(path);
            done = true;
        });
        for (int waited = 0; waited < 500 && !done; ++waited)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        if (!done) {  // stuck opening the FIFO: a writer that comes and goes frees it
            const int writer = ::open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
            if (writer >= 0)
                ::close(writer);
        }
        publish.join();
        EXPECT_EQ(Outcome(303, "File \"" + path + "\" is either invalid or doesn't exist"), outcome);
    }
    ::close(listener);
    EXPECT_EQ(kOk, session.Publish(link));
    EXPECT_EQ(1u, Uploads(server.Requests(false)).size());
}

// The extract is cut or extended while the server holds the upload after
// 1 MiB. The body must never disagree with its announced Content-Length.
TEST_F(FaultInjectionTest, ExtractShrinkingOrGrowingDuringTheUploadNeverBreaksTheAnnouncedLength)
{
    const std::size_t size = 48 * kMiB;
    OrvaneTest::ServerOptions options;
    options.idleTimeoutSeconds = 10;
    for (const bool shrink : {true, false}) {
        SCOPED_TRACE(shrink ? "cut to 16 MiB" : "grown by 1 MiB");
        TestHttpServer server(
            PublishScript({Response(201).Body(kPublishReply).HoldBodyAt(kMiB), Response(201).Body(kPublishReply)}),
            options);
        const std::string path = Extract("changing.qrx", Bytes(size, 6));
        SignedIn session(server);
        Outcome outcome{-1, ""};
        std::thread publisher([&] { outcome = session.Publish(path); });
        const bool held = server.WaitForHold();
        if (held && shrink)
            EXPECT_EQ(0, ::truncate(path.c_str(), 16 * kMiB));
        else if (held)
            std::ofstream(path, std::ios::binary | std::ios::app) << Bytes(kMiB, 9);
        server.ReleaseHolds();
        publisher.join();
        ASSERT_TRUE(held);

        const std::vector<RecordedRequest> uploads = Uploads(server.WaitForRequests(3));
        ASSERT_EQ(1u, uploads.size());
        if (shrink) {  // the file gave out early: a failure of the body, not of the transfer
            EXPECT_EQ(Outcome(ORV_RESULT_UnknownError, "Unknown error"), outcome);
            EXPECT_FALSE(uploads[0].bodyComplete);
        } else {  // the size measured when the upload began goes out, closing boundary last
            EXPECT_EQ(kOk, outcome);
            ExpectWholeAsAnnounced(uploads[0]);
            const std::string closing = Framing(BoundaryOf(uploads[0]), "d", path).second;
            EXPECT_EQ(closing, uploads[0].body.substr(uploads[0].body.size() - closing.size()));
            EXPECT_EQ(BodyLength("d", path, size), uploads[0].bodyLength);
            for (const std::string& event : server.Events())
                EXPECT_NE(0u, event.rfind("error ", 0)) << event.substr(0, 120);
        }
        session.ExpectUsable(Extract("small.qrx", "small"));
    }
}

TEST_F(BodyLengthTest, BodiesAroundBufferSizesArriveWhole)
{
    TestHttpServer server(PublishScript({Response(201).Body(kPublishReply)}));
    SignedIn session(server);
    const std::vector<std::size_t> sizes{0, 1, 65535, 65536, 65537};
    for (std::size_t size : sizes)
        ASSERT_EQ(kOk, session.Publish(Extract(std::to_string(size) + ".qrx", Bytes(size, 7)), "sized"));
    const std::vector<RecordedRequest> uploads = Uploads(server.Requests());
    ASSERT_EQ(sizes.size(), uploads.size());
    for (std::size_t i = 0; i < sizes.size(); ++i) {
        SCOPED_TRACE(sizes[i]);
        const std::string path = m_dir.File(std::to_string(sizes[i]) + ".qrx");
        ExpectWholeAsAnnounced(uploads[i]);
        EXPECT_EQ(BodyLength("sized", path, sizes[i]), uploads[i].bodyLength);
        const auto framing = Framing(BoundaryOf(uploads[i]), "sized", path);
        EXPECT_TRUE(framing.first + Bytes(sizes[i], 7) + framing.second == uploads[i].body)
            << "the body differs from the expected multipart body";
    }
}

// A sparse file just over 4 GiB: no count may wrap at 32 bits. Bytes next to the
// turn-over points are marked, so a body that skipped or repeated them would not
// have the expected digest. The server keeps only length and digest.
TEST_F(BodyLengthTest, BodyOver4GiBArrivesWithItsAnnouncedLength)
{
    const std::uint64_t size = (std::uint64_t(1) << 32) + 17;
    const std::string path = m_dir.File("huge.qrx");
    const std::vector<std::pair<std::uint64_t, char>> marks{
        {0, 'A'}, {(std::uint64_t(1) << 31) - 1, 'B'}, {std::uint64_t(1) << 31, 'C'},
        {(std::uint64_t(1) << 32) - 1, 'D'}, {std::uint64_t(1) << 32, 'E'}, {size - 1, 'F'}};
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(0, ::ftruncate(fd, static_cast<off_t>(size)));
    for (const auto& mark : marks)
        ASSERT_EQ(1, ::pwrite(fd, &mark.second, 1, static_cast<off_t>(mark.first)));
    ::close(fd);

    OrvaneTest::ServerOptions options;
    options.storeBodies = false;
    TestHttpServer server(PublishScript({Response(201).Body(kPublishReply)}), options);
    SignedIn session(server);
    ASSERT_EQ(kOk, session.Publish(path, "huge"));
    const std::vector<RecordedRequest> uploads = Uploads(server.Requests(false));
    ASSERT_EQ(1u, uploads.size());
    ExpectWholeAsAnnounced(uploads[0]);
    EXPECT_EQ(BodyLength("huge", path, size), uploads[0].bodyLength);

    const auto framing = Framing(BoundaryOf(uploads[0]), "huge", path);
    std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> digest(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    EVP_DigestInit_ex(digest.get(), EVP_sha256(), nullptr);
    EVP_DigestUpdate(digest.get(), framing.first.data(), framing.first.size());
    const std::string zeros(kMiB, '\0');
    std::uint64_t offset = 0;
    for (const auto& mark : marks) {
        for (std::uint64_t gap = mark.first - offset; gap > 0;) {
            const std::size_t piece = static_cast<std::size_t>(std::min<std::uint64_t>(gap, zeros.size()));
            EVP_DigestUpdate(digest.get(), zeros.data(), piece);
            gap -= piece;
        }
        EVP_DigestUpdate(digest.get(), &mark.second, 1);
        offset = mark.first + 1;
    }
    EVP_DigestUpdate(digest.get(), framing.second.data(), framing.second.size());
    unsigned char bytes[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_DigestFinal_ex(digest.get(), bytes, &length);
    std::string hex;
    for (unsigned int i = 0; i < length; ++i)
        hex += "0123456789abcdef"[bytes[i] >> 4], hex += "0123456789abcdef"[bytes[i] & 15];
    EXPECT_EQ(hex, uploads[0].bodySha256);
}
