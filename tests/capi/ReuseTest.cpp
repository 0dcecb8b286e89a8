// Connection reuse, the project cache, uploads without "Expect" and sign-out,
// through the exported API against the loopback servers.
#include <orvane/OrvaneServerExt.h>

#include "tests/capi/CapiTestSupport.h"

namespace CapiTest {
namespace {

const char kProjectsPath[] = "/api/2.0/sites/S1/projects";
const char kSignOutPath[] = "/api/2.0/auth/signout";

// A handle with connection reuse and the project cache as given (0: the call is not made).
void Configure(Connection& connection, int reuse, long cacheSeconds)
{
    ASSERT_EQ(ORV_RESULT_Success, connection.Create());
    if (reuse != 0) {
        ASSERT_EQ(ORV_RESULT_Success, OrvServerConnectionSetConnectionReuse(connection.Handle(), reuse));
    }
    if (cacheSeconds != 0) {
        ASSERT_EQ(ORV_RESULT_Success, OrvServerConnectionSetProjectCache(connection.Handle(), cacheSeconds));
    }
}

// The sign-in and project page of PublishScript, the pages and the uploads answered in turn.
Script Scripted(const std::vector<Response>& pages, const std::vector<Response>& uploads)
{
    return Script()
        .On("POST", "/api/2.0/auth/signin", Response(200).Body(kSignInReply))
        .Sequence(kProjectsPath, pages, "GET")
        .Sequence(kUploadPath, uploads, "POST");
}

std::vector<RecordedRequest> To(const std::vector<RecordedRequest>& requests, const std::string& path)
{
    std::vector<RecordedRequest> matching;
    std::copy_if(requests.begin(), requests.end(), std::back_inserter(matching),
                 [&](const RecordedRequest& r) { return r.Path() == path; });
    return matching;
}

Response Page(const std::string& projectId)
{
    std::string body = kProjectsReply;
    body.replace(body.find("P1"), 2, projectId);
    return Response(200).Body(body);
}

int CancelOnceSending(void*, std::uint64_t sent, std::uint64_t)
{
    return sent > 0 ? 1 : 0;
}

class ReuseTest : public StartedTest {};

// Counted by the reference server ("Samples" is on page 3): without the calls,
// every request opens a connection and every publish walks the pages; reuse
// keeps one connection per Connect, the cache skips the walk until Connect.
// Sign-out ends the session on the server, also after a cancel aimed at no call.
TEST_F(ReuseTest, ConnectionsAndPageWalksPerSetting)
{
    const struct {
        const char* name;
        int reuse;
        long cacheSeconds;
        bool connectAgain; // between the two publishes
        long requests;
        long connections;
    } rows[] = {
        {"plain handle", 0, 0, false, 9, 9},
        {"reuse", 1, 0, false, 9, 1},
        {"cache", 0, 60, false, 6, 6},
        {"reuse and cache", 1, 60, false, 6, 1},
        {"reuse and cache, Connect in between", 1, 60, true, 10, 2},
    };
    ReferenceServer server;
    const std::string extract = Extract("e.qrx", "extract bytes");
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const long requests = server.Stat("requests");
        const long connections = server.Stat("connections");
        Connection connection;
        Configure(connection, row.reuse, row.cacheSeconds);
        ASSERT_EQ(ORV_RESULT_Success, connection.Connect(server.Url(), "demo", "demo-password"));
        EXPECT_EQ(ORV_RESULT_Success, connection.Publish(extract, "Samples", "first", 1));
        if (row.connectAgain) {
            ASSERT_EQ(ORV_RESULT_Success, connection.Connect(server.Url(), "demo", "demo-password"));
        }
        EXPECT_EQ(ORV_RESULT_Success, connection.Publish(extract, "Samples", "second", 1));
        EXPECT_EQ(row.requests, server.Stat("requests") - requests);
        EXPECT_EQ(row.connections, server.Stat("connections") - connections);
        EXPECT_EQ("extract bytes", server.Stored("Samples", "second").value_or(""));
        const long live = server.Stat("sessions");
        EXPECT_EQ(ORV_RESULT_Success, OrvServerConnectionCancel(connection.Handle())); // aimed at no call
        EXPECT_EQ(ORV_RESULT_Success, OrvServerConnectionSignOut(connection.Handle()));
        EXPECT_EQ(live - 1, server.Stat("sessions"));
    }
}

TEST_F(ReuseTest, ReusedConnectionClosedByTheServerIsReplaced)
{
    ReferenceServer server("", {"--idle-timeout", "2"});
    Connection connection;
    Configure(connection, 1, 0);
    ASSERT_EQ(ORV_RESULT_Success, connection.Connect(server.Url(), "demo", "demo-password"));
    ASSERT_TRUE(WaitUntil([&] { return server.Stat("open") == 0; }));
    EXPECT_EQ(ORV_RESULT_Success, connection.Publish(Extract("e.qrx", "bytes"), "Samples", "after close", 0));
    EXPECT_EQ(2, server.Stat("connections"));
    EXPECT_EQ("bytes", server.Stored("Samples", "after close").value_or(""));
}

// The server reads a request and closes without an answer: on a reused
// connection a page is asked once more on a fresh one, on a fresh connection
// it fails. An upload whose whole body went out is never sent again: it may
// have landed. Uploads carry "Expect: 100-continue" unless the handle turned
// it off.
TEST_F(ReuseTest, PageLostOnAReusedConnectionIsAskedOnceMore)
{
    const Response page = Response(200).Body(kProjectsReply);
    const Response stored = Response(201).Body(kPublishReply);
    const Response closed = Response(200).CloseWithoutAnswer();
    const struct {
        const char* name;
        int reuse;
        int expect; // -1: the call is not made
        std::vector<Response> pages;
        std::vector<Response> uploads;
        ORV_RESULT result;
        std::size_t pagesAsked;
        std::size_t uploadsSent;
    } rows[] = {
        {"page, reused", 1, -1, {closed, page}, {stored}, ORV_RESULT_Success, 2, 1},
        {"whole upload, reused, no Expect", 1, 0, {page}, {closed, stored}, ORV_SERVER_NetworkFailure, 1, 1},
        {"page twice, reused", 1, -1, {closed, closed, page}, {stored}, ORV_SERVER_NetworkFailure, 2, 0},
        {"page, fresh", 0, -1, {closed, page}, {stored}, ORV_SERVER_NetworkFailure, 1, 0},
        {"upload, fresh, Expect on", 0, 1, {page}, {closed, stored}, ORV_SERVER_NetworkFailure, 1, 1},
    };
    const std::string extract = Extract("e.qrx", Bytes(3 << 19, 7)); // libcurl expects from 1 MiB up
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        TestHttpServer server(Scripted(row.pages, row.uploads));
        Connection connection;
        Configure(connection, row.reuse, 0);
        if (row.expect >= 0) {
            ASSERT_EQ(ORV_RESULT_Success, OrvServerConnectionSetExpectContinue(connection.Handle(), row.expect));
        }
        ASSERT_EQ(ORV_RESULT_Success, connection.Connect(server.BaseUrl(), "u", "p"));
        EXPECT_EQ(row.result, connection.Publish(extract, "Sales", "d", 0));
        const auto requests = server.WaitForRequests(1 + row.pagesAsked + row.uploadsSent);
        EXPECT_EQ(row.pagesAsked, To(requests, kProjectsPath).size());
        const auto uploads = To(requests, kUploadPath);
        ASSERT_EQ(row.uploadsSent, uploads.size());
        for (const auto& upload : uploads) {
            EXPECT_EQ(row.expect != 0, upload.HeaderValue("Expect") == std::optional<std::string>("100-continue"));
        }
        if (row.result == ORV_RESULT_Success) {
            EXPECT_TRUE(uploads.back().bodyComplete);
            EXPECT_EQ(uploads.front().bodySha256, uploads.back().bodySha256); // a resend starts from the top
        }
    }
}

// A remembered id the server no longer knows (404) walks the pages again and
// publishes once more; a 404 after a fresh walk is the answer.
TEST_F(ReuseTest, StaleCachedProjectIsLookedUpAgain)
{
    const Response stored = Response(201).Body(kPublishReply);
    const Response gone = Response(404).Body("<qsResponse/>");
    const ORV_RESULT ok = ORV_RESULT_Success;
    const ORV_RESULT refused = ORV_SERVER_ServerResponseError;
    const struct {
        const char* name;
        long cacheSeconds;
        std::vector<Response> pages;
        std::vector<Response> uploads;
        std::vector<ORV_RESULT> results;     // one publish each
        std::vector<std::string> projectIds; // of the uploads, in order
    } rows[] = {
        {"stale id", 60, {Page("P1"), Page("P2")}, {stored, gone, stored}, {ok, ok}, {"P1", "P1", "P2"}},
        {"stale twice", 60, {Page("P1"), Page("P2")}, {stored, gone, gone}, {ok, refused}, {"P1", "P1", "P2"}},
        {"fresh id refused", 60, {Page("P1")}, {gone}, {refused}, {"P1"}},
        {"no cache", 0, {Page("P1"), Page("P2")}, {stored, stored}, {ok, ok}, {"P1", "P2"}},
    };
    const std::string extract = Extract("e.qrx", "x");
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        TestHttpServer server(Scripted(row.pages, row.uploads));
        Connection connection;
        Configure(connection, 0, row.cacheSeconds);
        ASSERT_EQ(ORV_RESULT_Success, connection.Connect(server.BaseUrl(), "u", "p"));
        for (const ORV_RESULT expected : row.results)
            EXPECT_EQ(expected, connection.Publish(extract, "Sales", "d", 1));
        const auto uploads = To(server.WaitForRequests(1 + row.projectIds.size()), kUploadPath);
        ASSERT_EQ(row.projectIds.size(), uploads.size());
        for (std::size_t i = 0; i < uploads.size(); ++i)
            EXPECT_NE(std::string::npos, uploads[i].body.find("<project id=\"" + row.projectIds[i] + "\" />")) << i;
    }
}

// A stopped transfer leaves no broken connection behind for the next call.
TEST_F(ReuseTest, ReuseAfterACancelOrATimeOut)
{
    const struct {
        const char* name;
        long stallSeconds;
        long totalSeconds;
        ORV_PROGRESS_CALLBACK progress;
        ORV_RESULT stopped;
    } rows[] = {
        {"stall time-out", 1, 0, nullptr, ORV_RESULT_TimedOut},
        {"total time-out", 0, 1, nullptr, ORV_RESULT_TimedOut},
        {"cancel", 0, 0, &CancelOnceSending, ORV_RESULT_Cancelled},
    };
    // Larger than what loopback socket buffers hold, so that the held upload stalls.
    const std::string extract = Extract("e.qrx", std::string(24 << 20, 'x'));
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const Response held = Response(201).Body(kPublishReply).HoldBodyAt(65536, 10);
        TestHttpServer server(Scripted({Response(200).Body(kProjectsReply)}, {held, Response(201).Body(kPublishReply)}),
                              {false, false});
        Connection connection;
        Configure(connection, 1, 60);
        ASSERT_EQ(ORV_RESULT_Success, OrvServerConnectionSetStallTimeout(connection.Handle(), row.stallSeconds));
        ASSERT_EQ(ORV_RESULT_Success, OrvServerConnectionSetTotalTimeout(connection.Handle(), row.totalSeconds));
        ASSERT_EQ(ORV_RESULT_Success,
                  OrvServerConnectionSetProgressCallback(connection.Handle(), row.progress, nullptr));
        ASSERT_EQ(ORV_RESULT_Success, connection.Connect(server.BaseUrl(), "u", "p"));
        EXPECT_EQ(row.stopped, connection.Publish(extract, "Sales", "d", 1));
        server.ReleaseHolds();
        ASSERT_EQ(ORV_RESULT_Success, OrvServerConnectionSetProgressCallback(connection.Handle(), nullptr, nullptr));
        ASSERT_EQ(ORV_RESULT_Success, OrvServerConnectionSetTotalTimeout(connection.Handle(), 0));
        EXPECT_EQ(ORV_RESULT_Success, connection.Publish(extract, "Sales", "d", 1));
        const auto uploads = To(server.WaitForRequests(4, false), kUploadPath);
        ASSERT_EQ(2u, uploads.size());
        EXPECT_TRUE(uploads[1].bodyComplete);
        EXPECT_EQ(1u, To(server.Requests(false), kProjectsPath).size());
    }
}

// Sign-out is an empty POST with the sign-in's header lines and the token; the
// handle is disconnected afterwards whatever the server answered.
TEST_F(ReuseTest, SignOutSendsTheTokenAndDisconnects)
{
    const struct {
        const char* name;
        bool connect;
        Response answer;
        ORV_RESULT result;
        std::size_t sent;
    } rows[] = {
        {"accepted", true, Response(204), ORV_RESULT_Success, 1},
        {"refused", true, Response(500).Body("down"), ORV_SERVER_ServerResponseError, 1},
        {"lost", true, Response(200).CloseWithoutAnswer(), ORV_SERVER_NetworkFailure, 1},
        {"never signed in", false, Response(204), ORV_SERVER_NotConnected, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        TestHttpServer server(PublishScript({Response(201)}).On("POST", kSignOutPath, row.answer));
        Connection connection;
        ASSERT_EQ(ORV_RESULT_Success, connection.Create());
        if (row.connect) {
            ASSERT_EQ(ORV_RESULT_Success, connection.Connect(server.BaseUrl(), "u", "p"));
        }
        EXPECT_EQ(row.result, OrvServerConnectionSignOut(connection.Handle()));
        EXPECT_EQ(ORV_SERVER_NotConnected, connection.Publish(Extract("e.qrx", "x"), "Sales", "d", 0));
        const auto requests = server.WaitForRequests(row.connect + row.sent);
        const auto signOuts = To(requests, kSignOutPath);
        ASSERT_EQ(row.sent, signOuts.size());
        if (row.sent == 0)
            continue;
        EXPECT_EQ("POST", signOuts[0].method);
        EXPECT_EQ(kToken, signOuts[0].HeaderValue("X-Orvane-Auth").value_or(""));
        EXPECT_EQ(requests[0].HeaderValue("Content-Type"), signOuts[0].HeaderValue("Content-Type"));
        EXPECT_EQ(0u, signOuts[0].bodyLength);
    }
}

} // namespace
} // namespace CapiTest
