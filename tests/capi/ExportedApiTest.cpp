// The exported functions as a program linked against libOrvaneServer meets
// them: only the public headers, real files, and real HTTP peers on loopback.
#include <orvane/OrvaneServer.h>

#include "CapiTestSupport.h"
#include "tests/support/TestHttpServer.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <climits>
#include <filesystem>
#include <functional>

using namespace CapiTest;
using OrvaneTest::Response;
using OrvaneTest::Script;
using OrvaneTest::TempDirectory;
using OrvaneTest::TestHttpServer;

namespace
{

const char kSignInReply[] =
    "<qsResponse><credentials token=\"T0K3N\"><site id=\"S1\" contentUrl=\"\"/><user id=\"U\"/></credentials>"
    "</qsResponse>";
const char kProjectsReply[] = "<qsResponse><pagination pageNumber=\"1\" pageSize=\"100\" totalAvailable=\"1\"/>"
                              "<projects><project name=\"Sales\" id=\"P1\"/></projects></qsResponse>";
const char kPublishReply[] = "<qsResponse><datasource name=\"d\"><project id=\"P1\"/></datasource></qsResponse>";

class ExportedApiTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        ClearProxyEnvironment();
        ::setenv("ORV_SDK_LOGDIR", m_dir.Path().c_str(), 1);
    }
    void TearDown() override { OrvServerAPICleanup(); }

    // An existing extract file, for the calls that check the file first.
    std::string Extract(const std::string& name, const std::string& bytes = "extract")
    {
        WriteFile(m_dir.File(name), bytes);
        return m_dir.File(name);
    }

    TempDirectory m_dir{"orv-capi"};
};

struct Call {
    std::string what;
    std::function<ORV_RESULT()> call;
    ORV_RESULT result;
    std::string error;
};

void ExpectCalls(const std::vector<Call>& calls)
{
    for (const Call& c : calls) {
        SCOPED_TRACE(c.what);
        OrvSetLastErrorMessage(L"left by an earlier call");
        EXPECT_EQ(c.result, c.call());
        EXPECT_EQ(c.error, LastError());
    }
}

} // namespace

TEST_F(ExportedApiTest, NullArgumentsAreNamedInArgumentOrderBeforeTheHandleIsChecked)
{
    ASSERT_EQ(ORV_RESULT_Success, OrvServerAPIInitialize());
    int notAHandle = 0;
    void* unknown = &notAHandle;
    const Utf16 s = U("x");
    const unsigned short* x = s.c_str();
    const ORV_RESULT invalid = ORV_RESULT_InvalidArgument;
    ExpectCalls({
        {"connect, all null", [] { return OrvServerConnectionConnect(nullptr, nullptr, nullptr, nullptr, nullptr); },
         invalid, "Invalid argument 'host'"},
        {"connect, host given", [&] { return OrvServerConnectionConnect(nullptr, x, nullptr, nullptr, nullptr); },
         invalid, "Invalid argument 'username'"},
        {"connect, password and site null", [&] { return OrvServerConnectionConnect(nullptr, x, x, nullptr, nullptr); },
         invalid, "Invalid argument 'password'"},
        {"connect, unknown handle, site null", [&] { return OrvServerConnectionConnect(unknown, x, x, x, nullptr); },
         invalid, "Invalid argument 'siteID'"},
        {"publish, all null", [] { return OrvServerConnectionPublishExtract(nullptr, nullptr, nullptr, nullptr, 0); },
         invalid, "Invalid argument 'path'"},
        {"publish, path given", [&] { return OrvServerConnectionPublishExtract(nullptr, x, nullptr, nullptr, 1); },
         invalid, "Invalid argument 'projectName'"},
        {"publish, unknown handle, name null",
         [&] { return OrvServerConnectionPublishExtract(unknown, x, x, nullptr, 1); }, invalid,
         "Invalid argument 'datasourceName'"},
        {"proxy, all null", [] { return OrvServerConnectionSetProxyCredentials(nullptr, nullptr, nullptr); }, invalid,
         "Invalid argument 'username'"},
        {"proxy, unknown handle, password null",
         [&] { return OrvServerConnectionSetProxyCredentials(unknown, x, nullptr); }, invalid,
         "Invalid argument 'password'"},
    });
}

TEST_F(ExportedApiTest, NullUnknownAndClosedHandlesAreRefused)
{
    ASSERT_EQ(ORV_RESULT_Success, OrvServerAPIInitialize());
    int notAHandle = 0;
    void* closed = nullptr;
    ASSERT_EQ(ORV_RESULT_Success, OrvServerConnectionCreate(&closed));
    ASSERT_EQ(ORV_RESULT_Success, OrvServerConnectionClose(closed));
    // Empty strings are not null: they pass the argument checks and reach the handle check.
    const Utf16 empty;
    const unsigned short* e = empty.c_str();
    std::vector<Call> calls;
    const std::vector<std::pair<std::string, void*>> handles{
        {"null ", nullptr}, {"unknown ", &notAHandle}, {"closed ", closed}};
    for (const auto& entry : handles) {
        const std::string& kind = entry.first;
        void* handle = entry.second;
        const std::string bad = "Invalid ServerConnection handle";
        calls.push_back({kind + "connect", [=] { return OrvServerConnectionConnect(handle, e, e, e, e); },
                         ORV_RESULT_BadHandle, bad});
        calls.push_back({kind + "publish", [=] { return OrvServerConnectionPublishExtract(handle, e, e, e, 1); },
                         ORV_RESULT_BadHandle, bad});
        calls.push_back(
            {kind + "disconnect", [=] { return OrvServerConnectionDisconnect(handle); }, ORV_RESULT_BadHandle, bad});
        calls.push_back({kind + "proxy", [=] { return OrvServerConnectionSetProxyCredentials(handle, e, e); },
                         ORV_RESULT_BadHandle, bad});
        // Close alone leaves the last error as it was.
        calls.push_back({kind + "close", [=] { return OrvServerConnectionClose(handle); }, ORV_RESULT_BadHandle,
                         "left by an earlier call"});
    }
    ExpectCalls(calls);
}

TEST_F(ExportedApiTest, CreateNeedsAStartedLibraryAndLeavesTheHandleAloneWhenRefused)
{
    int sentinel = 0;
    void* handle = &sentinel;
    const std::string refused = "Initialize() must be called before any other use.";
    EXPECT_EQ(404, OrvServerConnectionCreate(&handle));
    EXPECT_EQ(refused, LastError());
    EXPECT_EQ(static_cast<void*>(&sentinel), handle);

    ASSERT_EQ(ORV_RESULT_Success, OrvServerAPIInitialize());
    ASSERT_EQ(ORV_RESULT_Success, OrvServerAPIInitialize()); // no nesting count
    ASSERT_EQ(ORV_RESULT_Success, OrvServerAPICleanup());
    OrvSetLastErrorMessage(nullptr);
    EXPECT_EQ(404, OrvServerConnectionCreate(&handle));
    EXPECT_EQ(refused, LastError());
    EXPECT_EQ(static_cast<void*>(&sentinel), handle);

    ASSERT_EQ(ORV_RESULT_Success, OrvServerAPIInitialize());
    ASSERT_EQ(ORV_RESULT_Success, OrvServerConnectionCreate(&handle));
    EXPECT_NE(static_cast<void*>(&sentinel), handle);
    EXPECT_EQ(ORV_RESULT_Success, OrvServerConnectionClose(handle));
}

TEST_F(ExportedApiTest, SecondCloseIsABadHandleAndKeepsTheLastError)
{
    ASSERT_EQ(ORV_RESULT_Success, OrvServerAPIInitialize());
    void* first = nullptr;
    void* second = nullptr;
    ASSERT_EQ(ORV_RESULT_Success, OrvServerConnectionCreate(&first));
    ASSERT_EQ(ORV_RESULT_Success, OrvServerConnectionCreate(&second));
    ASSERT_NE(first, second);

    OrvSetLastErrorMessage(L"earlier failure");
    EXPECT_EQ(ORV_RESULT_Success, OrvServerConnectionClose(first));
    EXPECT_EQ(ORV_RESULT_BadHandle, OrvServerConnectionClose(first));
    EXPECT_EQ("earlier failure", LastError());
    // Closing one handle leaves the other working.
    EXPECT_EQ(ORV_RESULT_Success, OrvServerConnectionDisconnect(second));
    EXPECT_EQ(ORV_RESULT_Success, OrvServerConnectionClose(second));
    EXPECT_EQ("earlier failure", LastError());
}

TEST_F(ExportedApiTest, ResultCodesAreDistinctFromEachOtherAndFromServerCodes)
{
    const std::vector<ORV_RESULT> codes{ORV_RESULT_Success,
                                        ORV_RESULT_InvalidArgument,
                                        ORV_RESULT_BadHandle,
                                        ORV_RESULT_UnknownError,
                                        300,
                                        301,
                                        303,
                                        400,
                                        401,
                                        402,
                                        403,
                                        404};
    for (std::size_t i = 0; i < codes.size(); ++i)
        for (std::size_t j = i + 1; j < codes.size(); ++j)
            EXPECT_NE(codes[i], codes[j]) << i << " " << j;
    EXPECT_EQ(0, ORV_RESULT_Success);
}

TEST_F(ExportedApiTest, LogThatCannotBeOpenedIsAnUnknownErrorAndTheLibraryStaysStopped)
{
    // Directories occupy all ten names the log may take; root ignores file modes, not this.
    std::vector<std::string> names{"OrvaneSDKServer.log"};
    for (int n = 1; n <= 9; ++n)
        names.push_back("OrvaneSDKServer_" + std::to_string(n) + ".log");
    for (const std::string& name : names)
        ASSERT_TRUE(std::filesystem::create_directory(m_dir.File(name)));

    EXPECT_EQ(ORV_RESULT_UnknownError, OrvServerAPIInitialize());
    EXPECT_EQ("Unknown error", LastError());
    void* handle = nullptr;
    EXPECT_EQ(404, OrvServerConnectionCreate(&handle));
    EXPECT_EQ(nullptr, handle);

    // Nothing was half started: the next Initialize runs the log set-up again.
    std::filesystem::remove(m_dir.File("OrvaneSDKServer_9.log"));
    ASSERT_EQ(ORV_RESULT_Success, OrvServerAPIInitialize());
    ASSERT_EQ(ORV_RESULT_Success, OrvServerConnectionCreate(&handle));
    EXPECT_EQ(ORV_RESULT_Success, OrvServerConnectionClose(handle));
    EXPECT_EQ(ORV_RESULT_Success, OrvServerAPICleanup());
    const std::string log = OrvaneTest::ReadFileBytes(m_dir.File("OrvaneSDKServer_9.log"));
    EXPECT_NE(std::string::npos, log.find("Curl global cleanup\n")) << log;
}

TEST_F(ExportedApiTest, FileAndSessionStateAreCheckedBeforeAnythingIsSent)
{
    ASSERT_EQ(ORV_RESULT_Success, OrvServerAPIInitialize());
    Connection connection;
    ASSERT_EQ(ORV_RESULT_Success, connection.Create());
    const std::string good = Extract("good.qrx");
    const std::vector<std::string> badPaths{m_dir.File("missing.qrx"), Extract("upper.QRX"), Extract("data.qrx.bak"),
                                            Extract("noextension")};
    for (const std::string& path : badPaths) {
        SCOPED_TRACE(path);
        EXPECT_EQ(303, connection.Publish(path, "Sales", "d", 0));
        EXPECT_EQ("File \"" + path + "\" is either invalid or doesn't exist", LastError());
    }
    // A usable file on a session that never signed in.
    EXPECT_EQ(402, connection.Publish(good, "Sales", "d", 0));
    EXPECT_EQ("Connect must be called first", LastError());
    EXPECT_EQ(ORV_RESULT_Success, OrvServerConnectionDisconnect(connection.Handle()));
    EXPECT_EQ(402, connection.Publish(good, "Sales", "d", 1));
    EXPECT_EQ("Connect must be called first", LastError());
}

TEST_F(ExportedApiTest, RefusedConnectionIsANetworkFailureWithLibcurlsText)
{
    // Bound but not listening: connections are refused, and no one else can take the port meanwhile.
    const int socketFd = ::socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(socketFd, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(0, ::bind(socketFd, reinterpret_cast<sockaddr*>(&address), sizeof address));
    ASSERT_EQ(0, ::getsockname(socketFd, reinterpret_cast<sockaddr*>(&address), &length));
    const std::string url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));

    ASSERT_EQ(ORV_RESULT_Success, OrvServerAPIInitialize());
    Connection connection;
    ASSERT_EQ(ORV_RESULT_Success, connection.Create());
    EXPECT_EQ(400, connection.Connect(url, "demo", "demo-password"));
    EXPECT_EQ("Couldn't connect to server", LastError());
    // Not signed in after the failure.
    EXPECT_EQ(402, connection.Publish(Extract("a.qrx"), "Sales", "a", 0));
    ::close(socketFd);
}

TEST_F(ExportedApiTest, RepliesThatAreNotTheExpectedXmlLeaveAnEmptyLastError)
{
    TestHttpServer server(
        Script()
            .Sequence("/api/2.0/auth/signin",
                      {Response(200).Body("this is not XML <"),
                       Response(200).Body("<error><summary>nope</summary></error>"), Response(200).Body(kSignInReply)})
            .On("GET", "*", Response(200).Body(kProjectsReply))
            .On("POST", "*", Response(201).Body("<qsResponse><surprise/></qsResponse>")));
    ASSERT_EQ(ORV_RESULT_Success, OrvServerAPIInitialize());
    Connection connection;
    ASSERT_EQ(ORV_RESULT_Success, connection.Create());
    ExpectCalls({
        {"sign-in reply not XML", [&] { return connection.Connect(server.BaseUrl(), "u", "p"); }, 300, ""},
        {"sign-in reply of another shape", [&] { return connection.Connect(server.BaseUrl(), "u", "p"); }, 403, ""},
        {"signed in", [&] { return connection.Connect(server.BaseUrl(), "u", "p"); }, ORV_RESULT_Success,
         "left by an earlier call"},
        {"publish reply of another shape", [&] { return connection.Publish(Extract("s.qrx"), "Sales", "s", 0); }, 403,
         ""},
    });
}

TEST_F(ExportedApiTest, EveryNonZeroOverwriteAsksTheServerToReplace)
{
    TestHttpServer server(Script()
                              .On("POST", "/api/2.0/auth/signin", Response(200).Body(kSignInReply))
                              .On("GET", "*", Response(200).Body(kProjectsReply))
                              .On("POST", "/api/2.0/sites/S1/datasources", Response(201).Body(kPublishReply)));
    ASSERT_EQ(ORV_RESULT_Success, OrvServerAPIInitialize());
    Connection connection;
    ASSERT_EQ(ORV_RESULT_Success, connection.Create());
    ASSERT_EQ(ORV_RESULT_Success, connection.Connect(server.BaseUrl() + "/", "u", "p"));
    const std::string path = Extract("sales.qrx");
    const std::vector<int> values{0, 1, 2, -1, INT_MIN, INT_MAX};
    for (int overwrite : values)
        ASSERT_EQ(ORV_RESULT_Success, connection.Publish(path, "Sales", "sales", overwrite)) << LastError();

    std::vector<std::string> targets;
    for (const OrvaneTest::RecordedRequest& request : server.Requests(false))
        if (request.method == "POST" && request.Path() != "/api/2.0/auth/signin")
            targets.push_back(request.target);
    ASSERT_EQ(values.size(), targets.size());
    for (std::size_t i = 0; i < values.size(); ++i) {
        SCOPED_TRACE(values[i]);
        EXPECT_EQ(values[i] == 0 ? "/api/2.0/sites/S1/datasources" : "/api/2.0/sites/S1/datasources?overwrite=true",
                  targets[i]);
    }
}
