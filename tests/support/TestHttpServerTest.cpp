// Smoke tests of the test HTTP server itself; the transport tests exercise it thoroughly.
#include "tests/support/TestHttpServer.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

using namespace OrvaneTest;

namespace {

size_t Collect(char* data, size_t size, size_t count, void* out)
{
    static_cast<std::string*>(out)->append(data, size * count);
    return size * count;
}

// One POST of `body` (or a GET when null) with libcurl; returns its result, status and body.
CURLcode Perform(const std::string& url, const std::string* body, long& status, std::string& reply)
{
    CURL* curl = curl_easy_init();
    curl_slist* headers = curl_slist_append(nullptr, "X-Test: one");
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_NOPROXY, "*");
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, 20L);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, Collect);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &reply);
    if (body != nullptr) {
        curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(body->size()));
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body->data());
    }
    CURLcode code = curl_easy_perform(curl);
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    curl_slist_free_all(headers);
    curl_easy_cleanup(curl);
    return code;
}

}  // namespace

TEST(TestHttpServer, RecordsRequestsAndAnswersAsScripted)
{
    TestHttpServer server(Script().Sequence("/up", {Response(201).Body("made"), Response(500).Body("then")}, "POST"));
    const std::string body("bin\0\xff\r\n", 7);
    for (const auto& [status, reply] : {std::pair<long, std::string>{201, "made"}, {500, "then"}, {500, "then"}}) {
        long got = 0;
        std::string text;
        ASSERT_EQ(CURLE_OK, Perform(server.Url("/up?q=1"), &body, got, text));
        EXPECT_EQ(status, got);
        EXPECT_EQ(reply, text);
    }
    long got = 0;
    std::string text;
    ASSERT_EQ(CURLE_OK, Perform(server.Url("/other"), nullptr, got, text));
    EXPECT_EQ(404, got);

    const auto requests = server.Requests();
    ASSERT_EQ(4u, requests.size());
    EXPECT_EQ("POST", requests[0].method);
    EXPECT_EQ("/up?q=1", requests[0].target);
    EXPECT_EQ("/up", requests[0].Path());
    EXPECT_EQ("one", requests[0].HeaderValue("x-test").value_or(""));
    EXPECT_EQ(body, requests[0].body);
    EXPECT_EQ(7u, requests[0].bodyLength);
    EXPECT_TRUE(requests[0].bodyComplete);
    EXPECT_EQ(201, requests[0].status);
    EXPECT_EQ(500, requests[2].status);
    EXPECT_EQ("GET", requests[3].method);
}

TEST(TestHttpServer, FaultStepClosesWithoutAnswerAndRecordsThePartialBody)
{
    TestHttpServer server(Script().On("/cut", Response(200).ReadBodyBytes(10).ResetWithoutAnswer()));
    const std::string body(100000, 'x');
    long status = 0;
    std::string reply;
    EXPECT_NE(CURLE_OK, Perform(server.Url("/cut"), &body, status, reply));
    const auto requests = server.WaitForRequests(1);
    ASSERT_EQ(1u, requests.size());
    EXPECT_EQ(0, requests[0].status);
    EXPECT_FALSE(requests[0].bodyComplete);
    EXPECT_EQ(10u, requests[0].bodyLength);
}
