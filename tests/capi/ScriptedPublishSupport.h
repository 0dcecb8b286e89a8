// What the fault, body-length and secrets tests share: a scripted server that
// signs in and lists one project with fixed XML, so that a test's own steps
// meet the upload; the library started with its log in a scratch directory;
// and the exact length of the upload body.
#pragma once

#include <orvane/OrvaneServer.h>

#include "CapiTestSupport.h"
#include "tests/support/HttpScript.h"
#include "tests/support/RecordedRequest.h"
#include "tests/support/TestHttpServer.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace CapiTest
{

const char kToken[] = "T0K3N";
const char kSignInReply[] =
    "<qsResponse><credentials token=\"T0K3N\"><site id=\"S1\" contentUrl=\"\"/><user id=\"U\"/></credentials>"
    "</qsResponse>";
const char kProjectsReply[] = "<qsResponse><pagination pageNumber=\"1\" pageSize=\"100\" totalAvailable=\"1\"/>"
                              "<projects><project name=\"Sales\" id=\"P1\"/></projects></qsResponse>";
const char kPublishReply[] = "<qsResponse><datasource name=\"d\"><project id=\"P1\"/></datasource></qsResponse>";
const char kUploadPath[] = "/api/2.0/sites/S1/datasources";

// Sign-in and the project page answer with the replies above; uploads are
// answered by `uploads` in turn, the last one repeating.
inline OrvaneTest::Script PublishScript(const std::vector<OrvaneTest::Response>& uploads)
{
    return OrvaneTest::Script()
        .On("POST", "/api/2.0/auth/signin", OrvaneTest::Response(200).Body(kSignInReply))
        .On("GET", "/api/2.0/sites/S1/projects", OrvaneTest::Response(200).Body(kProjectsReply))
        .Sequence(kUploadPath, uploads, "POST");
}

inline std::vector<OrvaneTest::RecordedRequest> Uploads(const std::vector<OrvaneTest::RecordedRequest>& requests)
{
    std::vector<OrvaneTest::RecordedRequest> uploads;
    for (const OrvaneTest::RecordedRequest& request : requests)
        if (request.method == "POST" && request.Path() != "/api/2.0/auth/signin")
            uploads.push_back(request);
    return uploads;
}

// The multipart body: first boundary (44), the payload part's header (58),
// the payload, the next boundary (46), the file part's header (96 plus the
// form name and the path), the file, the closing boundary (48).
inline std::uint64_t MultipartLength(const std::string& payload, const std::string& path, std::uint64_t fileSize)
{
    const std::string formName = "orvane_datasource";
    return 44 + 58 + payload.size() + 46 + (96 + formName.size() + path.size()) + fileSize + 48;
}

inline std::string PublishPayload(const std::string& datasourceName, const std::string& projectId)
{
    return "<qsRequest><datasource name=\"" + datasourceName + "\" ><project id=\"" + projectId +
           "\" /></datasource></qsRequest>";
}

// The library started for one test, with its log in a scratch directory and
// no proxy in the environment; stopped at the end of the test.
class StartedLibraryTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        ClearProxyEnvironment();
        ::setenv("ORV_SDK_LOGDIR", m_dir.Path().c_str(), 1);
        ASSERT_EQ(ORV_RESULT_Success, OrvServerAPIInitialize());
    }
    void TearDown() override { OrvServerAPICleanup(); }

    std::string Extract(const std::string& name, const std::string& bytes)
    {
        WriteFile(m_dir.File(name), bytes);
        return m_dir.File(name);
    }

    // Stops the library, which writes every queued line, and returns the log.
    std::string StopAndReadLog()
    {
        EXPECT_EQ(ORV_RESULT_Success, OrvServerAPICleanup());
        return OrvaneTest::ReadFileBytes(m_dir.File("OrvaneSDKServer.log"));
    }

    OrvaneTest::TempDirectory m_dir{"orv-capi-reliability"};
};

} // namespace CapiTest
