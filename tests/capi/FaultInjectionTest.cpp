// Faults of the server and of the extract file met through the exported
// functions: each gives its result code and last-error text, and the same
// handle publishes successfully right afterwards.
#include <orvane/OrvaneServer.h>

#include "ScriptedPublishSupport.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <fstream>
#include <set>
#include <thread>

using namespace CapiTest;
using OrvaneTest::RecordedRequest;
using OrvaneTest::Response;
using OrvaneTest::TestHttpServer;

namespace
{

constexpr std::size_t kMiB = 1024 * 1024;

struct Outcome {
    ORV_RESULT result;
    std::string error;
};

std::ostream& operator<<(std::ostream& out, const Outcome& outcome)
{
    return out << outcome.result << " \"" << outcome.error << "\"";
}

bool operator==(const Outcome& a, const Outcome& b)
{
    return a.result == b.result && a.error == b.error;
}

bool operator<(const Outcome& a, const Outcome& b)
{
    return a.result != b.result ? a.result < b.result : a.error < b.error;
}

using FaultInjectionTest = StartedLibraryTest;

// A handle of its own, signed in to `server`.
class SignedIn
{
  public:
    explicit SignedIn(const TestHttpServer& server)
    {
        const bool ready = m_connection.Create() == ORV_RESULT_Success &&
                           m_connection.Connect(server.BaseUrl(), "user", "pw") == ORV_RESULT_Success;
        EXPECT_TRUE(ready) << LastError();
    }

    Outcome Publish(const std::string& path, const std::string& name = "d")
    {
        OrvSetLastErrorMessage(L"untouched");
        const ORV_RESULT result = m_connection.Publish(path, "Sales", name, 0);
        return {result, LastError()};
    }

    // The publish after a fault: the handle is still signed in and works.
    void ExpectUsable(const std::string& path)
    {
        EXPECT_EQ((Outcome{ORV_RESULT_Success, "untouched"}), Publish(path, "again"));
    }

    Connection& Handle() { return m_connection; }

  private:
    Connection m_connection;
};

struct ReplyFault {
    std::string what;
    Response reply;
    Outcome expected;
};

std::string Repeat(const std::string& piece, std::size_t times)
{
    std::string out;
    out.reserve(piece.size() * times);
    for (std::size_t i = 0; i < times; ++i)
        out += piece;
    return out;
}

} // namespace

// The upload's answer is broken in one way or another; the body itself went
// out whole. Transport failures carry libcurl's text, statuses name the
// status, replies that are not the publish reply leave the text empty.
TEST_F(FaultInjectionTest, BrokenRepliesToTheUploadGiveTheirCodeAndLeaveTheSessionUsable)
{
    const std::string good = kPublishReply;
    const std::string hugeReply = "<qsResponse><datasource><tags>" + Repeat("<tag label=\"x\"/>", 5 * kMiB / 4) +
                                  "</tags></datasource></qsResponse>";
    const std::string deepReply = Repeat("<tag>", 200000);
    const std::string bomb = "<?xml version=\"1.0\"?><!DOCTYPE qsResponse [<!ENTITY a \"" + Repeat("a", 1000) +
                             "\">" + "<!ENTITY b \"" + Repeat("&a;", 1000) + "\"><!ENTITY c \"" +
                             Repeat("&b;", 1000) + "\">]><qsResponse><datasource name=\"&c;\"/></qsResponse>";
    const std::vector<ReplyFault> faults{
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
        {"deeply nested 200", Response(200).Body("<qsResponse><datasource><tags>" + deepReply), {403, ""}},
        {"entity expansion", Response(201).Body(bomb), {300, ""}},
        {"huge well-formed reply", Response(201).Body(hugeReply), {ORV_RESULT_Success, "untouched"}},
    };
    // One server for the whole table: each fault is followed by a good answer.
    std::vector<Response> answers;
    for (const ReplyFault& fault : faults) {
        answers.push_back(fault.reply);
        answers.push_back(Response(201).Body(kPublishReply));
    }
    TestHttpServer server(PublishScript(answers));
    const std::string path = Extract("reply.qrx", Bytes(100 * 1024, 1));
    SignedIn session(server);
    for (const ReplyFault& fault : faults) {
        SCOPED_TRACE(fault.what);
        EXPECT_EQ(fault.expected, session.Publish(path));
        session.ExpectUsable(path);
    }
    // Every upload went out whole, whatever became of its answer.
    const std::vector<RecordedRequest> uploads = Uploads(server.Requests(false));
    ASSERT_EQ(2 * faults.size(), uploads.size());
    for (std::size_t i = 0; i < uploads.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_TRUE(uploads[i].bodyComplete);
        EXPECT_EQ(std::to_string(uploads[i].bodyLength), uploads[i].HeaderValue("Content-Length").value_or(""));
    }

    // The caller sees the status only; the error page and libcurl's text are in the log.
    const std::string log = StopAndReadLog();
    EXPECT_NE(std::string::npos, log.find("): Server Response Code: 500\n")) << log.substr(0, 4096);
    EXPECT_NE(std::string::npos, log.find("): Response:\n")) << log.substr(0, 4096);
    EXPECT_NE(std::string::npos, log.find("): <html><body>Internal <b>error</body>\n")) << log.substr(0, 4096);
    EXPECT_NE(std::string::npos, log.find("): Curl Error:\n")) << log.substr(0, 4096);
    EXPECT_NE(std::string::npos, log.find("): Transferred a partial file\n")) << log.substr(0, 4096);
}

// The server gives up on the upload while the body is still on its way.
TEST_F(FaultInjectionTest, UploadCutOffWhileTheBodyIsSentFailsAndTheNextOneGoesThrough)
{
    struct Case {
        std::string what;
        Response fault;
        std::size_t fileSize;
        std::set<Outcome> expected;
    };
    const std::vector<Case> cases{
        {"reset after 64 KiB of the body", Response(201).ReadBodyBytes(64 * 1024).ResetWithoutAnswer(), 8 * kMiB,
         {{400, "Failed sending data to the peer"}, {400, "Failure when receiving data from the peer"}}},
        {"closed after 64 KiB of the body", Response(201).ReadBodyBytes(64 * 1024).CloseWithoutAnswer(), 8 * kMiB,
         {{400, "Failed sending data to the peer"}, {400, "Failure when receiving data from the peer"},
          {400, "Server returned nothing (no headers, no data)"}}},
        {"500 before the body is read", Response(500).Body("<error/>").AnswerBeforeBody(), 512 * 1024,
         {{401, "Server Response Code: 500"}}},
        {"413 before the body is read", Response(413).Body("too large").AnswerBeforeBody(), 8 * kMiB,
         {{401, "Server Response Code: 413"}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        TestHttpServer server(PublishScript({c.fault, Response(201).Body(kPublishReply)}));
        const std::string path = Extract("cut.qrx", Bytes(c.fileSize, 2));
        SignedIn session(server);
        const Outcome outcome = session.Publish(path);
        EXPECT_EQ(1u, c.expected.count(outcome)) << outcome;
        session.ExpectUsable(path);
        const std::vector<RecordedRequest> uploads = Uploads(server.WaitForRequests(4));
        ASSERT_EQ(2u, uploads.size());
        EXPECT_FALSE(uploads[0].bodyComplete);
        EXPECT_TRUE(uploads[1].bodyComplete);
    }
}

// The server refuses every try: the library answers the challenge once, with
// the handle's credentials, and resends the whole body each time; the last
// refusal stands. Once the handle has the right credentials the same upload
// goes through.
TEST_F(FaultInjectionTest, UploadRefusedOnEveryTryIsRetriedOnceWithCredentialsAndTheWholeBody)
{
    TestHttpServer server(PublishScript(
        {Response(201).Body(kPublishReply).RequireBasicAuth("uploader", "right", {"Basic realm=\"uploads\""})}));
    const std::string path = Extract("refused.qrx", Bytes(300 * 1024, 3));
    SignedIn session(server);
    void* handle = session.Handle().Handle();
    ASSERT_EQ(ORV_RESULT_Success, OrvServerConnectionSetProxyCredentials(handle, U("uploader").c_str(),
                                                                         U("wrong").c_str()));
    EXPECT_EQ((Outcome{401, "Server Response Code: 401"}), session.Publish(path));
    ASSERT_EQ(ORV_RESULT_Success, OrvServerConnectionSetProxyCredentials(handle, U("uploader").c_str(),
                                                                         U("right").c_str()));
    EXPECT_EQ((Outcome{ORV_RESULT_Success, "untouched"}), session.Publish(path));

    const std::vector<std::string> sentCredentials{"Basic dXBsb2FkZXI6d3Jvbmc=",  // uploader:wrong
                                                   "Basic dXBsb2FkZXI6cmlnaHQ="}; // uploader:right
    const std::vector<RecordedRequest> uploads = Uploads(server.Requests(false));
    // Two transfers per publish. With several schemes allowed, libcurl opens the
    // second with a request of its own that carries no credentials, so a
    // publish makes two or three requests; only its last one authenticates.
    std::vector<std::vector<RecordedRequest>> publishes(1);
    for (const RecordedRequest& upload : uploads) {
        publishes.back().push_back(upload);
        if (upload.HasHeader("Authorization"))
            publishes.emplace_back();
    }
    publishes.pop_back();
    ASSERT_EQ(2u, publishes.size());
    for (std::size_t p = 0; p < publishes.size(); ++p) {
        SCOPED_TRACE(p);
        const std::vector<RecordedRequest>& requests = publishes[p];
        ASSERT_GE(requests.size(), 2u);
        EXPECT_LE(requests.size(), 3u);
        EXPECT_EQ(sentCredentials[p], requests.back().HeaderValue("Authorization").value_or(""));
        EXPECT_EQ(p == 0 ? 401 : 201, requests.back().status);
        for (const RecordedRequest& request : requests) {
            EXPECT_TRUE(request.bodyComplete);
            EXPECT_EQ(std::to_string(request.bodyLength), request.HeaderValue("Content-Length").value_or(""));
            EXPECT_EQ(requests[0].bodySha256, request.bodySha256);
            EXPECT_EQ(requests[0].HeaderValue("Content-Type"), request.HeaderValue("Content-Type"));
        }
    }
}

// A POST redirected with 301, 302 and 303 stays a POST and carries the same
// body to every address.
TEST_F(FaultInjectionTest, UploadFollowsRedirectChainsAsAPostWithTheSameBody)
{
    TestHttpServer server(PublishScript({Response::Redirect(301, "/moved/once")})
                              .On("POST", "/moved/once", Response::Redirect(302, "{base}/moved/twice"))
                              .On("POST", "/moved/twice", Response::Redirect(303, "/moved/last"))
                              .On("POST", "/moved/last", Response(201).Body(kPublishReply)));
    const std::string empty = Extract("empty.qrx", "");
    const std::string path = Extract("moved.qrx", Bytes(700 * 1024, 4));
    SignedIn session(server);
    for (const std::string& file : {empty, path}) {
        SCOPED_TRACE(file);
        const std::size_t before = Uploads(server.Requests(false)).size();
        EXPECT_EQ((Outcome{ORV_RESULT_Success, "untouched"}), session.Publish(file));
        const std::vector<RecordedRequest> all = Uploads(server.Requests(false));
        ASSERT_EQ(before + 4, all.size());
        const std::vector<std::string> targets{kUploadPath, "/moved/once", "/moved/twice", "/moved/last"};
        for (std::size_t i = 0; i < 4; ++i) {
            const RecordedRequest& upload = all[before + i];
            EXPECT_EQ(targets[i], upload.target);
            EXPECT_EQ("POST", upload.method);
            EXPECT_TRUE(upload.bodyComplete);
            EXPECT_EQ(all[before].bodyLength, upload.bodyLength);
            EXPECT_EQ(all[before].bodySha256, upload.bodySha256);
            EXPECT_EQ(std::string(kToken), upload.HeaderValue("X-Orvane-Auth").value_or(""));
        }
    }
}

// Bodies above 1 MiB ask for "100 Continue" first.
TEST_F(FaultInjectionTest, ContinueAnsweredWithHundredWithSilenceOrWithAnError)
{
    TestHttpServer server(PublishScript({Response(201).Body(kPublishReply),
                                         Response(201).Body(kPublishReply).WithoutContinue(),
                                         Response(417).Body("no").AnswerBeforeBody(),
                                         Response(201).Body(kPublishReply)}));
    const std::string path = Extract("large.qrx", Bytes(2 * kMiB, 5));
    SignedIn session(server);
    EXPECT_EQ((Outcome{ORV_RESULT_Success, "untouched"}), session.Publish(path));
    // Unanswered, libcurl sends the body after its own wait.
    EXPECT_EQ((Outcome{ORV_RESULT_Success, "untouched"}), session.Publish(path));
    EXPECT_EQ((Outcome{401, "Server Response Code: 417"}), session.Publish(path));
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
    EXPECT_EQ(0u, uploads[2].bodyLength); // refused before a byte of the body was sent
}

// Only a regular file, or a link to one, is uploaded. Anything else of a
// matching name is refused like a missing file, before it is opened: a
// directory would be measured at an absurd size, and opening a FIFO waits for
// a writer forever.
TEST_F(FaultInjectionTest, ExtractThatIsNotARegularFileIsRefusedBeforeItIsOpened)
{
    TestHttpServer server(PublishScript({Response(201).Body(kPublishReply)}));
    const std::string good = Extract("good.qrx", "good");
    const std::string link = m_dir.File("link.qrx");
    ASSERT_EQ(0, ::symlink(good.c_str(), link.c_str()));
    const std::string folder = m_dir.File("folder.qrx");
    ASSERT_TRUE(std::filesystem::create_directory(folder));
    const std::string fifo = m_dir.File("pipe.qrx");
    ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
    const std::string socketPath = m_dir.File("socket.qrx");
    const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(listener, 0);
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
        if (!done) {
            // Stuck opening the FIFO: a writer that comes and goes lets it go on.
            const int writer = ::open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
            if (writer >= 0)
                ::close(writer);
        }
        publish.join();
        EXPECT_EQ((Outcome{303, "File \"" + path + "\" is either invalid or doesn't exist"}), outcome);
    }
    ::close(listener);
    EXPECT_EQ((Outcome{ORV_RESULT_Success, "untouched"}), session.Publish(link));
    EXPECT_EQ(1u, Uploads(server.Requests(false)).size());
}

// The extract changes size while the upload is under way: the server stops
// reading after 1 MiB, the file is cut or extended, then the server reads on.
// The body must never disagree with the Content-Length announced for it: a
// short body would leave client and server each waiting for the other (the
// server here gives up after 10 s), a long one would spill into the
// connection after the request.
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
        if (held && shrink) {
            EXPECT_EQ(0, ::truncate(path.c_str(), 16 * kMiB));
        } else if (held) {
            std::ofstream out(path, std::ios::binary | std::ios::app);
            out << Bytes(kMiB, 9);
        }
        server.ReleaseHolds();
        publisher.join();
        ASSERT_TRUE(held);

        const std::vector<RecordedRequest> uploads = Uploads(server.WaitForRequests(3));
        ASSERT_EQ(1u, uploads.size());
        const RecordedRequest& upload = uploads[0];
        if (shrink) {
            // The file gave out early: a failure of the body, not of the transfer.
            EXPECT_EQ((Outcome{ORV_RESULT_UnknownError, "Unknown error"}), outcome);
            EXPECT_FALSE(upload.bodyComplete);
        } else {
            // The size measured when the upload began is what goes out, closing boundary last.
            EXPECT_EQ((Outcome{ORV_RESULT_Success, "untouched"}), outcome);
            EXPECT_TRUE(upload.bodyComplete);
            const std::string contentType = upload.HeaderValue("Content-Type").value_or("");
            const std::string boundary = contentType.substr(contentType.find("boundary=") + 9);
            const std::string closing = "\r\n--" + boundary + "--\r\n";
            ASSERT_GE(upload.body.size(), closing.size());
            EXPECT_EQ(closing, upload.body.substr(upload.body.size() - closing.size()));
            EXPECT_EQ(MultipartLength(PublishPayload("d", "P1"), path, size), upload.bodyLength);
            for (const std::string& event : server.Events())
                EXPECT_NE(0u, event.rfind("error ", 0)) << event.substr(0, 120);
        }
        session.ExpectUsable(Extract("small.qrx", "small"));
    }
}
