// The upload through the exported functions against the scripted server: broken and early answers,
// cut-off bodies, 100-continue, redirects, overwrite values and a body over 4 GiB. Each body goes
// out whole as announced unless the server stops reading; after a fault the handle publishes again.
#include "tests/support/TestSupport.h"

#include <climits>
#include <set>

using namespace OrvaneTest;

namespace {

constexpr std::size_t kMiB = 1024 * 1024;
using Outcome = std::pair<ORV_RESULT, std::string>;
const Outcome kOk{ORV_RESULT_Success, "untouched"};

// By doubling: a few copies of MiBs, where appending piece by piece takes seconds under the sanitizers.
std::string Repeat(const std::string& piece, std::size_t times)
{
    const std::size_t size = piece.size() * times;
    std::string out = times > 0 ? piece : std::string();
    while (!out.empty() && out.size() * 2 <= size)
        out += out;
    return out + out.substr(0, size - out.size());
}
void ExpectWholeAsAnnounced(const RecordedRequest& request)
{
    EXPECT_TRUE(request.bodyComplete && !request.HasHeader("Transfer-Encoding"));
    EXPECT_EQ(std::to_string(request.bodyLength), request.HeaderValue("Content-Length").value_or(""));
}

class UploadTest : public StartedTest {
  protected:
    void SignIn(const TestHttpServer& server)
    {
        ASSERT_TRUE(m_c.Create() == ORV_RESULT_Success &&
                    m_c.Connect(server.BaseUrl(), "user", "pw") == ORV_RESULT_Success)
            << LastError();
    }
    Outcome Publish(const std::string& path, const std::string& name = "d")
    {
        OrvSetLastErrorMessage(L"untouched");
        return {m_c.Publish(path, "Sales", name, 0), LastError()};
    }
    Connection m_c;
};

} // namespace

// Transport failures carry libcurl's text, statuses name the status, replies of another shape leave
// the text empty (the log explains: see the session tests). Bodies over 1 MiB ask for "100 Continue".
TEST_F(UploadTest, FaultyAnswersGiveTheirCodeAndLeaveTheSessionUsable)
{
    const std::string good = kPublishReply;
    const std::string bomb = "<?xml version=\"1.0\"?><!DOCTYPE qsResponse [<!ENTITY a \"" + Repeat("a", 1000) +
                             "\"><!ENTITY b \"" + Repeat("&a;", 1000) + "\"><!ENTITY c \"" + Repeat("&b;", 1000) +
                             "\">]><qsResponse><datasource name=\"&c;\"/></qsResponse>";
    const Outcome nothing{400, "Server returned nothing (no headers, no data)"},
        partial{400, "Transferred a partial file"}, sendFailed{400, "Failed sending data to the peer"},
        receiveFailed{400, "Failure when receiving data from the peer"};
    const struct {
        std::string what;
        Response reply;
        std::set<Outcome> expected;
        bool bodyComplete, continueSent;
    } faults[] = {
        {"closed after the body", Response(201).CloseWithoutAnswer(), {nothing}, true, true},
        {"body short of its length", Response(201).Body(good).TruncateBody(30), {partial}, true, true},
        {"XML cut inside a tag", Response(201).Body(good.substr(0, 40)), {{300, ""}}, true, true},
        {"the sign-in reply", Response(200).Body(kSignInReply), {{403, ""}}, true, true},
        {"huge non-XML 200", Response(200).Body(Repeat("not xml ", 5 * kMiB / 2)), {{300, ""}}, true, true},
        {"deeply nested",
         Response(200).Body("<qsResponse><datasource><tags>" + Repeat("<tag>", 200000)),
         {{403, ""}},
         true,
         true},
        {"entity expansion", Response(201).Body(bomb), {{300, ""}}, true, true},
        {"huge well-formed",
         Response(201).Body("<qsResponse><datasource><tags>" + Repeat("<tag/>", kMiB) +
                            "</tags></datasource></qsResponse>"),
         {kOk},
         true,
         true},
        {"continue left unanswered", Response(201).Body(good).WithoutContinue(), {kOk}, true, false},
        {"417 before the body",
         Response(417).Body("no").AnswerBeforeBody(),
         {{401, "Server Response Code: 417"}},
         false,
         false},
        {"closed after 64 KiB",
         Response(201).ReadBodyBytes(64 * 1024).CloseWithoutAnswer(),
         {sendFailed, receiveFailed, nothing},
         false,
         true},
    };
    std::vector<Response> answers; // each fault followed by a good answer
    for (const auto& fault : faults)
        answers.insert(answers.end(), {fault.reply, Response(201).Body(good)});
    TestHttpServer server(PublishScript(answers), {false, false});
    const std::string path = Extract("reply.qrx", Bytes(2 * kMiB, 1));
    SignIn(server);
    for (const auto& fault : faults) {
        const Outcome outcome = Publish(path);
        EXPECT_EQ(1u, fault.expected.count(outcome)) << fault.what << ": " << outcome.first << " " << outcome.second;
        EXPECT_EQ(kOk, Publish(path)) << "after " << fault.what;
    }
    const std::vector<RecordedRequest> uploads = Uploads(server.WaitForRequests(answers.size() + 2, false));
    ASSERT_EQ(answers.size(), uploads.size());
    for (std::size_t i = 0; i < uploads.size(); ++i) {
        SCOPED_TRACE(i % 2 ? "the good answer after " + faults[i / 2].what : faults[i / 2].what);
        EXPECT_EQ("100-continue", uploads[i].HeaderValue("Expect").value_or(""));
        EXPECT_EQ(i % 2 || faults[i / 2].continueSent, uploads[i].continueSent);
        if (i % 2 || faults[i / 2].bodyComplete)
            ExpectWholeAsAnnounced(uploads[i]);
        else
            EXPECT_FALSE(uploads[i].bodyComplete);
    }
}

// 301, 302 and 303 in a chain: the upload stays a POST with the same body and token.
TEST_F(UploadTest, RedirectsKeepThePostItsBodyAndToken)
{
    TestHttpServer server(PublishScript({Response::Redirect(301, "/moved/once")})
                              .On("POST", "/moved/once", Response::Redirect(302, "{base}/moved/twice"))
                              .On("POST", "/moved/twice", Response::Redirect(303, "/moved/last"))
                              .On("POST", "/moved/last", Response(201).Body(kPublishReply)));
    SignIn(server);
    EXPECT_EQ(kOk, Publish(Extract("moved.qrx", Bytes(700 * 1024, 4))));
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

// Every overwrite value but 0 replaces; an empty extract is a body like any other.
TEST_F(UploadTest, OverwriteValuesAndAnEmptyExtract)
{
    TestHttpServer server(
        PublishScript({Response(201).Body(kPublishReply)})
            .On("POST", kUploadPath + std::string("?overwrite=true"), Response(201).Body(kPublishReply)));
    SignIn(server);
    const std::string path = Extract("empty.qrx", "");
    for (int overwrite : {0, 1, 2, -1, INT_MIN, INT_MAX})
        EXPECT_EQ(ORV_RESULT_Success, m_c.Publish(path, "Sales", "d", overwrite)) << overwrite;
    const std::vector<RecordedRequest> uploads = Uploads(server.Requests(false));
    ASSERT_EQ(6u, uploads.size());
    for (std::size_t i = 0; i < 6; ++i) {
        EXPECT_EQ(i ? "/api/2.0/sites/S1/datasources?overwrite=true" : kUploadPath, uploads[i].target);
        ExpectWholeAsAnnounced(uploads[i]);
    }
}

// A sparse file just over 4 GiB: no count may wrap at 32 bits. In shared memory, whose holes read
// as the zero page: a disk's file system first fills gigabytes of page cache with zeros.
TEST_F(UploadTest, BodyOver4GiBArrivesWithItsAnnouncedLength)
{
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "too slow under TSan; the body's counts are not a matter of threads";
#endif
    const std::uint64_t size = (std::uint64_t(1) << 32) + 17;
    const TempDirectory memory("orv-huge", access("/dev/shm", W_OK) == 0 ? "/dev/shm" : std::getenv("TMPDIR"));
    const std::string path = memory.File("huge.qrx");
    WriteFileBytes(path, "");
    ASSERT_EQ(0, truncate(path.c_str(), static_cast<off_t>(size)));
    TestHttpServer server(PublishScript({Response(201).Body(kPublishReply)}), {false, false});
    SignIn(server);
    ASSERT_EQ(kOk, Publish(path, "huge"));
    const RecordedRequest upload = Uploads(server.Requests(false)).at(0);
    ExpectWholeAsAnnounced(upload);
    EXPECT_EQ(BodyLength("huge", path, size), upload.bodyLength);
}

// The extract changes on disk while the server holds the upload at 1 MiB: a file that grows is
// sent as long as it was announced; one that shrinks fails as "Unknown error", and the log says why.
TEST_F(UploadTest, ExtractChangingDuringTheUpload)
{
    const struct {
        const char* change;
        std::uint64_t newSize;
        Outcome expected;
    } rows[] = {{"grows", 40 * kMiB, kOk}, {"shrinks", 8 * kMiB, {ORV_RESULT_UnknownError, "Unknown error"}}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.change);
        TestHttpServer server(PublishScript({Response(201).Body(kPublishReply).HoldBodyAt(kMiB, 20)}), {false, false});
        const std::string path = Extract(std::string(row.change) + ".qrx", std::string(32 * kMiB, 'x'));
        Connection c;
        ASSERT_TRUE(c.Create() == ORV_RESULT_Success && c.Connect(server.BaseUrl(), "u", "pw") == ORV_RESULT_Success);
        Outcome outcome;
        std::thread caller([&] {
            OrvSetLastErrorMessage(L"untouched");
            outcome = {c.Publish(path, "Sales", "d", 0), LastError()};
        });
        EXPECT_TRUE(server.WaitForHold());
        std::filesystem::resize_file(path, row.newSize);
        server.ReleaseHolds();
        caller.join();
        EXPECT_EQ(row.expected, outcome);
        const std::vector<RecordedRequest> uploads = Uploads(server.WaitForRequests(3, false));
        ASSERT_EQ(1u, uploads.size());
        EXPECT_EQ(row.expected == kOk, uploads[0].bodyComplete);
        EXPECT_EQ(BodyLength("d", path, 32 * kMiB),
                  std::stoull(uploads[0].HeaderValue("Content-Length").value_or("0")));
    }
    EXPECT_NE(std::string::npos, StopAndReadLog().find("): Error: Failed to read from file: "));
}
