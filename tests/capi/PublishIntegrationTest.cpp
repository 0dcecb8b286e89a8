// Publishing through the exported functions to the reference server, which
// pages its projects, refuses to replace without overwrite and stores what it
// receives, so the stored bytes can be compared with the file sent.
#include <orvane/OrvaneServer.h>

#include "CapiTestSupport.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

using namespace CapiTest;

namespace
{

class PublishIntegrationTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        ClearProxyEnvironment();
        ::setenv("ORV_SDK_LOGDIR", m_server.File("").c_str(), 1);
        ASSERT_EQ(ORV_RESULT_Success, OrvServerAPIInitialize());
    }
    void TearDown() override { OrvServerAPICleanup(); }

    std::string Extract(const std::string& name, const std::string& bytes)
    {
        WriteFile(m_server.File(name), bytes);
        return m_server.File(name);
    }

    ReferenceServer m_server;
};

} // namespace

TEST_F(PublishIntegrationTest, PublishesIntoAProjectOnALaterPageByteForByteWithoutTouchingTheLastError)
{
    const std::string empty = Extract("empty.qrx", "");
    const std::string large = Bytes(5 * 1024 * 1024 + 17, 1);
    const std::string largePath = Extract("large.qrx", large);

    // Success never writes the last error, so a text left by a failure survives every call.
    OrvSetLastErrorMessage(L"left by an earlier failure");
    Connection connection;
    ASSERT_EQ(ORV_RESULT_Success, connection.Create());
    ASSERT_EQ(ORV_RESULT_Success,
              OrvServerConnectionSetProxyCredentials(connection.Handle(), U("").c_str(), U("").c_str()));
    ASSERT_EQ(ORV_RESULT_Success, connection.Connect(m_server.Url(), "demo", "demo-password")) << LastError();
    ASSERT_EQ(ORV_RESULT_Success, connection.Publish(empty, "Samples", "empty", 0)) << LastError();
    ASSERT_EQ(ORV_RESULT_Success, connection.Publish(largePath, "Samples", "large", 0)) << LastError();
    ASSERT_EQ(ORV_RESULT_Success, OrvServerConnectionDisconnect(connection.Handle()));
    ASSERT_EQ(ORV_RESULT_Success, connection.Close());
    EXPECT_EQ("left by an earlier failure", LastError());

    EXPECT_EQ(std::optional<std::string>(""), m_server.Stored("Samples", "empty"));
    const std::optional<std::string> stored = m_server.Stored("Samples", "large");
    ASSERT_TRUE(stored.has_value());
    EXPECT_EQ(large.size(), stored->size());
    EXPECT_TRUE(large == *stored) << "stored bytes differ from the file sent";
}

TEST_F(PublishIntegrationTest, ExistingDataSourceIsReplacedOnlyWithOverwrite)
{
    Connection connection;
    ASSERT_EQ(ORV_RESULT_Success, connection.Create());
    ASSERT_EQ(ORV_RESULT_Success, connection.Connect(m_server.Url(), "demo", "demo-password")) << LastError();
    const std::string first = Extract("first.qrx", Bytes(4096, 2));
    const std::string second = Extract("second.qrx", Bytes(8192, 3));
    const std::string third = Extract("third.qrx", Bytes(100, 4));

    ASSERT_EQ(ORV_RESULT_Success, connection.Publish(first, "Samples", "sales", 0)) << LastError();
    EXPECT_EQ(401, connection.Publish(second, "Samples", "sales", 0));
    EXPECT_EQ("Server Response Code: 409", LastError());
    EXPECT_EQ(Bytes(4096, 2), m_server.Stored("Samples", "sales"));

    ASSERT_EQ(ORV_RESULT_Success, connection.Publish(second, "Samples", "sales", 1)) << LastError();
    EXPECT_EQ(Bytes(8192, 3), m_server.Stored("Samples", "sales"));
    // Any non-zero value means overwrite, not only 1.
    ASSERT_EQ(ORV_RESULT_Success, connection.Publish(third, "Samples", "sales", -1)) << LastError();
    EXPECT_EQ(Bytes(100, 4), m_server.Stored("Samples", "sales"));
}

TEST_F(PublishIntegrationTest, RefusalsCarryTheServersCodeOrTheLibrarysText)
{
    const std::string path = Extract("sales.qrx", "sales");
    Connection connection;
    ASSERT_EQ(ORV_RESULT_Success, connection.Create());
    EXPECT_EQ(401, connection.Connect(m_server.Url(), "demo", "wrong-password"));
    EXPECT_EQ("Server Response Code: 401", LastError());
    EXPECT_EQ(402, connection.Publish(path, "Samples", "sales", 0));
    EXPECT_EQ("Connect must be called first", LastError());

    ASSERT_EQ(ORV_RESULT_Success, connection.Connect(m_server.Url() + "//", "demo", "demo-password")) << LastError();
    EXPECT_EQ(303, connection.Publish(path, "No Such Project", "sales", 0));
    EXPECT_EQ("Project \"No Such Project\" doesn't exist on server", LastError());
    // Names are matched exactly, case included.
    EXPECT_EQ(303, connection.Publish(path, "samples", "sales", 0));
    EXPECT_EQ("Project \"samples\" doesn't exist on server", LastError());
    EXPECT_EQ(303, connection.Publish(m_server.File("missing.qrx"), "Samples", "sales", 0));
    EXPECT_EQ("File \"" + m_server.File("missing.qrx") + "\" is either invalid or doesn't exist", LastError());

    // The failures left the session signed in and usable.
    ASSERT_EQ(ORV_RESULT_Success, connection.Publish(path, "Samples", "sales", 0)) << LastError();
    EXPECT_EQ(std::optional<std::string>("sales"), m_server.Stored("Samples", "sales"));
    EXPECT_FALSE(m_server.Stored("No Such Project", "sales").has_value());
}

TEST_F(PublishIntegrationTest, EightThreadsWithAHandleEachPublishAtOnce)
{
    constexpr int kThreads = 8;
    std::vector<std::string> paths;
    for (int t = 0; t < kThreads; ++t)
        paths.push_back(Extract("part" + std::to_string(t) + ".qrx", Bytes(256 * 1024 + t, 100 + t)));

    std::vector<ORV_RESULT> results(kThreads, -1);
    std::vector<std::string> errors(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            // The last error is per thread: read it on the thread that failed.
            Connection connection;
            ORV_RESULT rc = connection.Create();
            if (rc == ORV_RESULT_Success)
                rc = connection.Connect(m_server.Url(), "demo", "demo-password");
            if (rc == ORV_RESULT_Success)
                rc = connection.Publish(paths[t], "Samples", "part" + std::to_string(t), 0);
            if (rc == ORV_RESULT_Success)
                rc = OrvServerConnectionDisconnect(connection.Handle());
            if (rc == ORV_RESULT_Success)
                rc = connection.Close();
            results[t] = rc;
            errors[t] = LastError();
        });
    }
    for (std::thread& thread : threads)
        thread.join();

    for (int t = 0; t < kThreads; ++t) {
        SCOPED_TRACE(t);
        EXPECT_EQ(ORV_RESULT_Success, results[t]) << errors[t];
        EXPECT_EQ(Bytes(256 * 1024 + t, 100 + t), m_server.Stored("Samples", "part" + std::to_string(t)));
    }
}
