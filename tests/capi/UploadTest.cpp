// The upload through the exported functions against the scripted server: broken replies, cut-off
// bodies, challenges, redirects, 100-continue, odd extract files, and bodies of exactly the
// announced length where buffers and 32-bit counts turn over. After each fault the handle publishes again.
#include "tests/support/TestSupport.h"

#include <sys/stat.h>
#include <sys/un.h>

#include <atomic>
#include <set>

using namespace OrvaneTest;

namespace {

constexpr std::size_t kMiB = 1024 * 1024;
using Outcome = std::pair<ORV_RESULT, std::string>;
const Outcome kOk{ORV_RESULT_Success, "untouched"};

// A handle of its own, signed in to `server`.
class SignedIn {
public:
    explicit SignedIn(const TestHttpServer& server)
    {
        EXPECT_TRUE(m_c.Create() == ORV_RESULT_Success && m_c.Connect(server.BaseUrl(), "user", "pw") == ORV_RESULT_Success) << LastError();
    }
    Outcome Publish(const std::string& path, const std::string& name = "d")
    {
        OrvSetLastErrorMessage(L"untouched");
        const ORV_RESULT result = m_c.Publish(path, "Sales", name, 0);
        return {result, LastError()};
    }
    Connection m_c;
};

std::string Repeat(const std::string& piece, std::size_t times)
{
    std::string out;
    while (times-- > 0)
        out += piece;
    return out;
}
void ExpectWholeAsAnnounced(const RecordedRequest& request)
{
    EXPECT_TRUE(request.bodyComplete);
    EXPECT_FALSE(request.HasHeader("Transfer-Encoding"));
    EXPECT_EQ(std::to_string(request.bodyLength), request.HeaderValue("Content-Length").value_or(""));
}
using UploadTest = StartedTest;

}  // namespace

// Transport failures carry libcurl's text, statuses name the status, replies of another shape leave the text empty.
TEST_F(UploadTest, BrokenRepliesGiveTheirCodeAndLeaveTheSessionUsable)
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
        {"closed after the body", Response(201).CloseWithoutAnswer(), {400, "Server returned nothing (no headers, no data)"}},
        {"body short of its length", Response(201).Body(good).TruncateBody(30), {400, "Transferred a partial file"}},
        {"chunked without its last chunk", Response(201).Body(good).Chunked(16).OmitLastChunk(), {400, "Transferred a partial file"}},
        {"XML cut inside a tag", Response(201).Body(good.substr(0, 40)), {300, ""}},
        {"empty 201", Response(201), {300, ""}},
        {"non-XML error page", Response(500).Body("<html><body>Internal <b>error</body>"), {401, "Server Response Code: 500"}},
        {"the sign-in reply", Response(200).Body(kSignInReply), {403, ""}},
        {"the project page", Response(200).Body(kProjectsReply), {403, ""}},
        {"an error document", Response(200).Body("<error code=\"1\"><summary>no</summary></error>"), {403, ""}},
        {"huge non-XML 200", Response(200).Body(Repeat("not xml ", 5 * kMiB / 2)), {300, ""}},
        {"deeply nested", Response(200).Body("<qsResponse><datasource><tags>" + Repeat("<tag>", 200000)), {403, ""}},
        {"entity expansion", Response(201).Body(bomb), {300, ""}},
        {"huge well-formed reply", Response(201).Body("<qsResponse><datasource><tags>" + Repeat("<tag label=\"x\"/>", 5 * kMiB / 4) + "</tags></datasource></qsResponse>"), kOk},
    };
    std::vector<Response> answers;  // each fault followed by a good answer
    for (const auto& fault : faults)
        answers.insert(answers.end(), {fault.reply, Response(201).Body(good)});
    TestHttpServer server(PublishScript(answers));
    const std::string path = Extract("reply.qrx", Bytes(100 * 1024, 1));
    SignedIn session(server);
    for (const auto& fault : faults) {
        SCOPED_TRACE(fault.what);
        EXPECT_EQ(fault.expected, session.Publish(path));
        EXPECT_EQ(kOk, session.Publish(path));
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

TEST_F(UploadTest, UploadCutOffWhileTheBodyIsSentFailsAndTheNextOneGoesThrough)
{
    const Outcome sendFailed{400, "Failed sending data to the peer"}, receiveFailed{400, "Failure when receiving data from the peer"};
    const struct {
        std::string what;
        Response fault;
        std::set<Outcome> expected;
    } cases[] = {
        {"reset after 64 KiB", Response(201).ReadBodyBytes(64 * 1024).ResetWithoutAnswer(), {sendFailed, receiveFailed}},
        {"closed after 64 KiB", Response(201).ReadBodyBytes(64 * 1024).CloseWithoutAnswer(),
         {sendFailed, receiveFailed, {400, "Server returned nothing (no headers, no data)"}}},
        {"413 before the body", Response(413).Body("too large").AnswerBeforeBody(), {{401, "Server Response Code: 413"}}},
    };
    const std::string path = Extract("cut.qrx", Bytes(8 * kMiB, 2));
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        TestHttpServer server(PublishScript({c.fault, Response(201).Body(kPublishReply)}));
        SignedIn session(server);
        const Outcome outcome = session.Publish(path);
        EXPECT_EQ(1u, c.expected.count(outcome)) << outcome.first << " " << outcome.second;
        EXPECT_EQ(kOk, session.Publish(path));
        const std::vector<RecordedRequest> uploads = Uploads(server.WaitForRequests(4));
        ASSERT_EQ(2u, uploads.size());
        EXPECT_FALSE(uploads[0].bodyComplete);
        EXPECT_TRUE(uploads[1].bodyComplete);
    }
}

// The challenge is answered once with the handle's credentials and the whole body; the last refusal stands.
TEST_F(UploadTest, ChallengeIsAnsweredOnceWithTheCredentialsAndTheWholeBody)
{
    TestHttpServer server(PublishScript({Response(201).Body(kPublishReply).RequireBasicAuth("uploader", "right")}));
    const std::string path = Extract("refused.qrx", Bytes(300 * 1024, 3));
    SignedIn session(server);
    ASSERT_EQ(ORV_RESULT_Success, session.m_c.SetProxyCredentials("uploader", "wrong"));
    EXPECT_EQ(Outcome(401, "Server Response Code: 401"), session.Publish(path));
    ASSERT_EQ(ORV_RESULT_Success, session.m_c.SetProxyCredentials("uploader", "right"));
    EXPECT_EQ(kOk, session.Publish(path));
    // With several schemes allowed libcurl probes once more without credentials: two or three requests a publish.
    std::vector<std::vector<RecordedRequest>> publishes(1);
    for (const RecordedRequest& upload : Uploads(server.Requests(false))) {
        publishes.back().push_back(upload);
        if (upload.HasHeader("Authorization"))
            publishes.emplace_back();
    }
    ASSERT_EQ(3u, publishes.size());
    EXPECT_TRUE(publishes[2].empty());
    const std::string sent[] = {"Basic dXBsb2FkZXI6d3Jvbmc=", "Basic dXBsb2FkZXI6cmlnaHQ="};
    for (std::size_t p = 0; p < 2; ++p) {
        ASSERT_GE(publishes[p].size(), 2u);
        EXPECT_LE(publishes[p].size(), 3u);
        EXPECT_EQ(sent[p], publishes[p].back().HeaderValue("Authorization").value_or(""));
        EXPECT_EQ(p == 0 ? 401 : 201, publishes[p].back().status);
        for (const RecordedRequest& request : publishes[p]) {
            ExpectWholeAsAnnounced(request);
            EXPECT_EQ(publishes[p][0].bodySha256, request.bodySha256);
        }
    }
}

// 301, 302 and 303 in a chain: the upload stays a POST with the same body and token.
TEST_F(UploadTest, RedirectsKeepThePostItsBodyAndToken)
{
    TestHttpServer server(PublishScript({Response::Redirect(301, "/moved/once")})
                              .On("POST", "/moved/once", Response::Redirect(302, "{base}/moved/twice"))
                              .On("POST", "/moved/twice", Response::Redirect(303, "/moved/last"))
                              .On("POST", "/moved/last", Response(201).Body(kPublishReply)));
    SignedIn session(server);
    EXPECT_EQ(kOk, session.Publish(Extract("moved.qrx", Bytes(700 * 1024, 4))));
    const std::vector<RecordedRequest> all = Uploads(server.Requests(false));
    ASSERT_EQ(4u, all.size());
    const std::string targets[] = {kUploadPath, "/moved/once", "/moved/twice", "/moved/last"};
    for (std::size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(targets[i], all[i].target);
        ExpectWholeAsAnnounced(all[i]);
        EXPECT_EQ(all[0].bodySha256, all[i].bodySha256);
        EXPECT_EQ(std::string(kToken), all[i].HeaderValue("X-Orvane-Auth").value_or(""));
    }
}

// Bodies above 1 MiB ask for "100 Continue": answered, unanswered (libcurl sends after a wait), or refused.
TEST_F(UploadTest, ContinueAnsweredUnansweredOrRefused)
{
    TestHttpServer server(PublishScript({Response(201).Body(kPublishReply), Response(201).Body(kPublishReply).WithoutContinue(),
                                         Response(417).Body("no").AnswerBeforeBody(), Response(201).Body(kPublishReply)}));
    const std::string path = Extract("large.qrx", Bytes(2 * kMiB, 5));
    SignedIn session(server);
    EXPECT_EQ(kOk, session.Publish(path));
    EXPECT_EQ(kOk, session.Publish(path));
    EXPECT_EQ(Outcome(401, "Server Response Code: 417"), session.Publish(path));
    EXPECT_EQ(kOk, session.Publish(path));
    const std::vector<RecordedRequest> uploads = Uploads(server.WaitForRequests(6));
    ASSERT_EQ(4u, uploads.size());
    for (std::size_t i = 0; i < uploads.size(); ++i) {
        EXPECT_EQ("100-continue", uploads[i].HeaderValue("Expect").value_or(""));
        EXPECT_EQ(i == 0 || i == 3, uploads[i].continueSent) << i;
        EXPECT_EQ(i != 2, uploads[i].bodyComplete) << i;
    }
}

// Only a regular file, or a link to one, is uploaded; a directory, FIFO or socket is refused
// before it is opened (opening a FIFO would wait for a writer forever).
TEST_F(UploadTest, ExtractThatIsNotARegularFileIsRefused)
{
    TestHttpServer server(PublishScript({Response(201).Body(kPublishReply)}));
    const std::string link = m_dir.File("link.qrx"), folder = m_dir.File("folder.qrx"), fifo = m_dir.File("pipe.qrx"),
                      socketPath = m_dir.File("socket.qrx");
    ASSERT_EQ(0, symlink(Extract("good.qrx", "good").c_str(), link.c_str()));
    ASSERT_TRUE(std::filesystem::create_directory(folder));
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socketPath.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(0, bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address));
    SignedIn session(server);
    for (const std::string& path : {folder, fifo, socketPath}) {
        SCOPED_TRACE(path);
        std::atomic<bool> done{false};
        Outcome outcome{-1, ""};
        std::thread publish([&] { outcome = session.Publish(path), done = true; });
        if (!WaitUntil([&] { return done.load(); }, std::chrono::seconds(5)))
            close(open(fifo.c_str(), O_WRONLY | O_NONBLOCK));  // frees a publish stuck opening the FIFO
        publish.join();
        EXPECT_EQ(Outcome(303, "File \"" + path + "\" is either invalid or doesn't exist"), outcome);
    }
    close(listener);
    EXPECT_EQ(kOk, session.Publish(link));
    EXPECT_EQ(1u, Uploads(server.Requests(false)).size());
}

// The extract is cut or extended while the server holds the upload after 1 MiB: the body never
// disagrees with its Content-Length.
TEST_F(UploadTest, ExtractChangingDuringTheUploadNeverBreaksTheAnnouncedLength)
{
    const std::size_t size = 48 * kMiB;
    for (const bool shrink : {true, false}) {
        SCOPED_TRACE(shrink ? "cut to 16 MiB" : "grown by 1 MiB");
        TestHttpServer server(PublishScript({Response(201).Body(kPublishReply).HoldBodyAt(kMiB), Response(201).Body(kPublishReply)}),
                              ServerOptions{false, true, 10});
        const std::string path = Extract("changing.qrx", Bytes(size, 6));
        SignedIn session(server);
        Outcome outcome{-1, ""};
        std::thread publisher([&] { outcome = session.Publish(path); });
        const bool held = server.WaitForHold();
        if (held && shrink)
            EXPECT_EQ(0, truncate(path.c_str(), 16 * kMiB));
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
            const auto framing = UploadFraming(uploads[0], "d", path);
            EXPECT_EQ(framing.second, uploads[0].body.substr(uploads[0].body.size() - framing.second.size()));
            EXPECT_EQ(framing.first.size() + size + framing.second.size(), uploads[0].bodyLength);
        }
        EXPECT_EQ(kOk, session.Publish(Extract("small.qrx", "small")));
    }
}

TEST_F(UploadTest, BodiesAroundBufferSizesArriveWhole)
{
    TestHttpServer server(PublishScript({Response(201).Body(kPublishReply)}));
    SignedIn session(server);
    const std::size_t sizes[] = {0, 1, 65535, 65536, 65537};
    for (std::size_t size : sizes) {
        SCOPED_TRACE(size);
        const std::string path = Extract(std::to_string(size) + ".qrx", Bytes(size, 7));
        ASSERT_EQ(kOk, session.Publish(path, "sized"));
        const RecordedRequest upload = Uploads(server.Requests()).back();
        ExpectWholeAsAnnounced(upload);
        const auto framing = UploadFraming(upload, "sized", path);
        EXPECT_TRUE(framing.first + Bytes(size, 7) + framing.second == upload.body) << "the body is not the expected multipart body";
    }
}

// A sparse file just over 4 GiB: no count may wrap at 32 bits.
TEST_F(UploadTest, BodyOver4GiBArrivesWithItsAnnouncedLength)
{
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "too slow under TSan; the body's counts are not a matter of threads";
#endif
    const std::uint64_t size = (std::uint64_t(1) << 32) + 17;
    const std::string path = Extract("huge.qrx", "");
    ASSERT_EQ(0, truncate(path.c_str(), static_cast<off_t>(size)));
    TestHttpServer server(PublishScript({Response(201).Body(kPublishReply)}), ServerOptions{false, false, 0});
    SignedIn session(server);
    ASSERT_EQ(kOk, session.Publish(path, "huge"));
    const std::vector<RecordedRequest> uploads = Uploads(server.Requests(false));
    ASSERT_EQ(1u, uploads.size());
    ExpectWholeAsAnnounced(uploads[0]);
    const auto framing = UploadFraming(uploads[0], "huge", path);
    EXPECT_EQ(framing.first.size() + size + framing.second.size(), uploads[0].bodyLength);
}
