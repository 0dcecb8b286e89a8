// The exported functions as a program linked against libOrvaneServer meets
// them: only the public headers, real files, real peers on loopback.
#include "CapiTestSupport.h"

#include <climits>
#include <filesystem>
#include <functional>

using namespace CapiTest;

namespace {

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

using ExportedApiTest = StartedTest;
using StartupApiTest = LibraryTest;

}  // namespace

TEST_F(ExportedApiTest, NullArgumentsAreNamedInArgumentOrderBeforeTheHandleIsChecked)
{
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
        {"publish, unknown handle, name null", [&] { return OrvServerConnectionPublishExtract(unknown, x, x, nullptr, 1); },
         invalid, "Invalid argument 'datasourceName'"},
        {"proxy, all null", [] { return OrvServerConnectionSetProxyCredentials(nullptr, nullptr, nullptr); }, invalid,
         "Invalid argument 'username'"},
        {"proxy, unknown handle, password null", [&] { return OrvServerConnectionSetProxyCredentials(unknown, x, nullptr); },
         invalid, "Invalid argument 'password'"},
    });
}

TEST_F(ExportedApiTest, NullUnknownAndClosedHandlesAreRefusedAndASecondCloseKeepsTheLastError)
{
    int notAHandle = 0;
    void* closed = nullptr;
    void* other = nullptr;
    ASSERT_EQ(ORV_RESULT_Success, OrvServerConnectionCreate(&closed));
    ASSERT_EQ(ORV_RESULT_Success, OrvServerConnectionCreate(&other));
    ASSERT_NE(closed, other);
    OrvSetLastErrorMessage(L"earlier failure");
    ASSERT_EQ(ORV_RESULT_Success, OrvServerConnectionClose(closed));
    EXPECT_EQ("earlier failure", LastError());
    // Empty strings are not null: they pass the argument checks and reach the handle check.
    const Utf16 empty;
    const unsigned short* e = empty.c_str();
    const std::string bad = "Invalid ServerConnection handle";
    std::vector<Call> calls;
    for (const auto& [kind, handle] : std::vector<std::pair<std::string, void*>>{
             {"null ", nullptr}, {"unknown ", &notAHandle}, {"closed ", closed}}) {
        void* h = handle;
        calls.push_back({kind + "connect", [=] { return OrvServerConnectionConnect(h, e, e, e, e); },
                         ORV_RESULT_BadHandle, bad});
        calls.push_back({kind + "publish", [=] { return OrvServerConnectionPublishExtract(h, e, e, e, 1); },
                         ORV_RESULT_BadHandle, bad});
        calls.push_back({kind + "disconnect", [=] { return OrvServerConnectionDisconnect(h); }, ORV_RESULT_BadHandle, bad});
        calls.push_back({kind + "proxy", [=] { return OrvServerConnectionSetProxyCredentials(h, e, e); },
                         ORV_RESULT_BadHandle, bad});
        // Close alone leaves the last error as it was.
        calls.push_back({kind + "close", [=] { return OrvServerConnectionClose(h); }, ORV_RESULT_BadHandle,
                         "left by an earlier call"});
    }
    ExpectCalls(calls);
    // Closing one handle left the other working.
    EXPECT_EQ(ORV_RESULT_Success, OrvServerConnectionDisconnect(other));
    EXPECT_EQ(ORV_RESULT_Success, OrvServerConnectionClose(other));
}

TEST_F(StartupApiTest, CreateNeedsAStartedLibraryAndLeavesTheHandleAloneWhenRefused)
{
    // The result codes differ from each other and from every server code.
    const std::vector<ORV_RESULT> codes{ORV_RESULT_Success, ORV_RESULT_InvalidArgument, ORV_RESULT_BadHandle,
                                        ORV_RESULT_UnknownError, 300, 301, 303, 400, 401, 402, 403, 404};
    for (std::size_t i = 0; i < codes.size(); ++i)
        for (std::size_t j = i + 1; j < codes.size(); ++j)
            EXPECT_NE(codes[i], codes[j]) << i << " " << j;
    EXPECT_EQ(0, ORV_RESULT_Success);

    int sentinel = 0;
    void* handle = &sentinel;
    const std::string refused = "Initialize() must be called before any other use.";
    EXPECT_EQ(404, OrvServerConnectionCreate(&handle));
    EXPECT_EQ(refused, LastError());
    EXPECT_EQ(static_cast<void*>(&sentinel), handle);

    Start();
    Start();  // no nesting count: one Cleanup stops
    ASSERT_EQ(ORV_RESULT_Success, OrvServerAPICleanup());
    OrvSetLastErrorMessage(nullptr);
    EXPECT_EQ(404, OrvServerConnectionCreate(&handle));
    EXPECT_EQ(refused, LastError());
    EXPECT_EQ(static_cast<void*>(&sentinel), handle);

    Start();
    ASSERT_EQ(ORV_RESULT_Success, OrvServerConnectionCreate(&handle));
    EXPECT_NE(static_cast<void*>(&sentinel), handle);
    EXPECT_EQ(ORV_RESULT_Success, OrvServerConnectionClose(handle));
}

TEST_F(StartupApiTest, LogThatCannotBeOpenedIsAnUnknownErrorAndTheLibraryStaysStopped)
{
    // Directories occupy all ten names the log may take; root ignores file modes, not this.
    ASSERT_TRUE(std::filesystem::create_directory(m_dir.File("OrvaneSDKServer.log")));
    for (int n = 1; n <= 9; ++n)
        ASSERT_TRUE(std::filesystem::create_directory(m_dir.File("OrvaneSDKServer_" + std::to_string(n) + ".log")));
    EXPECT_EQ(ORV_RESULT_UnknownError, OrvServerAPIInitialize());
    EXPECT_EQ("Unknown error", LastError());
    void* handle = nullptr;
    EXPECT_EQ(404, OrvServerConnectionCreate(&handle));
    EXPECT_EQ(nullptr, handle);
    std::filesystem::remove(m_dir.File("OrvaneSDKServer_9.log"));
    Start();
    ASSERT_EQ(ORV_RESULT_Success, OrvServerConnectionCreate(&handle));
    EXPECT_EQ(ORV_RESULT_Success, OrvServerConnectionClose(handle));
}

// Publishing to the reference server, which pages its projects, refuses to
// replace without overwrite and stores what it receives. A failure sets the
// last error; no success after it touches it.
TEST_F(ExportedApiTest, PublishesToTheReferenceServerByteForByte)
{
    ReferenceServer server;
    const std::string empty = Extract("empty.qrx", "");
    const std::string large = Bytes(5 * 1024 * 1024 + 17, 1);
    const std::string largePath = Extract("large.qrx", large);
    Connection connection;
    ASSERT_EQ(ORV_RESULT_Success, connection.Create());
    ASSERT_EQ(ORV_RESULT_Success,
              OrvServerConnectionSetProxyCredentials(connection.Handle(), U("").c_str(), U("").c_str()));
    EXPECT_EQ(401, connection.Connect(server.Url(), "demo", "wrong-password"));
    EXPECT_EQ("Server Response Code: 401", LastError());
    EXPECT_EQ(402, connection.Publish(empty, "Samples", "empty", 0));
    EXPECT_EQ("Connect must be called first", LastError());

    // Sign-in, then "Samples" found on page 3.
    ASSERT_EQ(ORV_RESULT_Success, connection.Connect(server.Url() + "//", "demo", "demo-password")) << LastError();
    ASSERT_EQ(ORV_RESULT_Success, connection.Publish(empty, "Samples", "empty", 0)) << LastError();
    ASSERT_EQ(ORV_RESULT_Success, connection.Publish(largePath, "Samples", "large", 0)) << LastError();
    EXPECT_EQ(std::optional<std::string>(""), server.Stored("Samples", "empty"));
    const std::optional<std::string> stored = server.Stored("Samples", "large");
    ASSERT_TRUE(stored.has_value());
    EXPECT_TRUE(large == *stored) << "stored " << stored->size() << " bytes differ from the file sent";

    // Names are matched exactly; the failures leave the session signed in.
    EXPECT_EQ(303, connection.Publish(empty, "samples", "x", 0));
    EXPECT_EQ("Project \"samples\" doesn't exist on server", LastError());
    EXPECT_EQ(303, connection.Publish(m_dir.File("missing.qrx"), "Samples", "x", 0));
    EXPECT_EQ("File \"" + m_dir.File("missing.qrx") + "\" is either invalid or doesn't exist", LastError());
    EXPECT_EQ(401, connection.Publish(empty, "Samples", "large", 0));
    EXPECT_EQ("Server Response Code: 409", LastError());
    EXPECT_EQ(large, server.Stored("Samples", "large"));
    // Every non-zero overwrite replaces.
    int seed = 10;
    for (int overwrite : {1, 2, -1, INT_MIN, INT_MAX}) {
        SCOPED_TRACE(overwrite);
        const std::string bytes = Bytes(100, ++seed);
        ASSERT_EQ(ORV_RESULT_Success, connection.Publish(Extract("o.qrx", bytes), "Samples", "large", overwrite));
        EXPECT_EQ(bytes, server.Stored("Samples", "large"));
    }
    ASSERT_EQ(ORV_RESULT_Success, OrvServerConnectionDisconnect(connection.Handle()));
    ASSERT_EQ(ORV_RESULT_Success, connection.Close());
    EXPECT_EQ("Server Response Code: 409", LastError());
}
