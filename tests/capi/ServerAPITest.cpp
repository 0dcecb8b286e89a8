#include "capi/ServerAPI.h"

#include "logging/LogFileTestSupport.h"
#include "logging/Logger.h"
#include "server/ServerConnection.h"
#include "sys/Errors.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <thread>

using namespace OrvaneInternal;
using namespace LogFileTest;

namespace {

class CountingLogger : public Logger {
public:
    void Run() override {}
    void QueueMessage(std::wistream&) override { ++messages; }
    void QueueMessage(std::istream&) override { ++messages; }
    void QueueMessage(const std::wstring&) override { ++messages; }
    void QueueMessage(const std::string&) override { ++messages; }
    void Flush() override {}
    void QueueStop() override { ++stops; }
    const std::wstring& GetBaseFilePath() const override { return path; }
    int messages = 0;
    int stops = 0;
    std::wstring path;
};

class ServerAPITest : public ::testing::Test {
protected:
    std::vector<std::string> Log(const std::string& name = "OrvaneSDKServer.log") const
    {
        return Payloads(FileLines(m_dir.File(name)));
    }

    TempDir m_dir;
    ScopedEnv m_logDir{"ORV_SDK_LOGDIR", m_dir.Path()};
    const std::string m_pidLine = PidLine(::getpid());
};

}  // namespace

TEST_F(ServerAPITest, StartsTheLogThenCurlAndStopsCurlThenTheLog)
{
    ServerAPI::Initialize();
    EXPECT_TRUE(ServerConnection::s_initialized);
    Logger::Get()->QueueMessage(std::wstring(L"queued before cleanup"));
    ServerAPI::Cleanup();
    EXPECT_FALSE(ServerConnection::s_initialized);

    // Read at once: Cleanup returns only when the file is complete.
    EXPECT_EQ((std::vector<std::string>{m_pidLine, "Curl global initialization", "queued before cleanup",
                                        "Curl global cleanup"}),
              Log());
}

TEST_F(ServerAPITest, EveryLineQueuedBeforeCleanupIsWrittenWholeAndNoneAfter)
{
    constexpr int kThreads = 8;
    constexpr int kLinesPerThread = 10000;
    ServerAPI::Initialize();
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            RefCntPtr<Logger> logger = Logger::Get();
            for (int i = 0; i < kLinesPerThread; ++i) {
                const std::string text = "thread " + std::to_string(t) + " line " + std::to_string(i);
                if (i % 2)
                    logger->QueueMessage(text);
                else
                    logger->QueueMessage(std::wstring(text.begin(), text.end()));
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    ServerAPI::Cleanup();
    Logger::Get()->QueueMessage(std::string("after cleanup"));  // the writer has ended: never written

    const std::string content = ReadFile(m_dir.File("OrvaneSDKServer.log"));
    ASSERT_FALSE(content.empty());
    EXPECT_EQ('\n', content.back());
    const std::vector<std::string> lines = Lines(content);
    ASSERT_EQ(static_cast<std::size_t>(kThreads * kLinesPerThread + 3), lines.size());
    EXPECT_EQ(m_pidLine, PayloadOf(lines.front()));
    EXPECT_EQ("Curl global initialization", PayloadOf(lines[1]));
    EXPECT_EQ("Curl global cleanup", PayloadOf(lines.back()));

    std::vector<int> next(kThreads, 0);
    for (std::size_t i = 2; i + 1 < lines.size(); ++i) {
        ASSERT_FALSE(HeaderOf(lines[i]).empty()) << lines[i];
        int t = -1, n = -1;
        ASSERT_EQ(2, std::sscanf(PayloadOf(lines[i]).c_str(), "thread %d line %d", &t, &n)) << lines[i];
        ASSERT_TRUE(t >= 0 && t < kThreads) << lines[i];
        // Exact text: nothing torn off, nothing of another line mixed in.
        ASSERT_EQ("thread " + std::to_string(t) + " line " + std::to_string(next[t]), PayloadOf(lines[i]));
        ++next[t];
    }
    EXPECT_EQ(std::vector<int>(kThreads, kLinesPerThread), next);
}

TEST_F(ServerAPITest, SecondInitializeDoesNothingAndOneCleanupStops)
{
    ServerAPI::Initialize();
    const RefCntPtr<Logger> logger = Logger::Get();
    ServerAPI::Initialize();
    EXPECT_EQ(logger.get(), Logger::Get().get());
    ServerAPI::Cleanup();
    EXPECT_FALSE(ServerConnection::s_initialized);
    EXPECT_EQ((std::vector<std::string>{m_pidLine, "Curl global initialization", "Curl global cleanup"}), Log());
    EXPECT_FALSE(std::filesystem::exists(m_dir.File("OrvaneSDKServer_1.log")));

    // The stopped file logger cannot show what a second Cleanup would queue;
    // a counting logger can.
    RefCntPtr<CountingLogger> counting(new CountingLogger());
    Logger::Init(RefCntPtr<Logger>(counting));
    ServerAPI::Cleanup();
    EXPECT_EQ(0, counting->messages);
    EXPECT_EQ(0, counting->stops);
    EXPECT_FALSE(ServerConnection::s_initialized);
}

TEST_F(ServerAPITest, CleanupBeforeInitializeDoesNothing)
{
    RefCntPtr<CountingLogger> counting(new CountingLogger());
    Logger::Init(RefCntPtr<Logger>(counting));
    ServerAPI::Cleanup();
    EXPECT_EQ(0, counting->messages);
    EXPECT_EQ(0, counting->stops);
    EXPECT_FALSE(ServerConnection::s_initialized);
    EXPECT_TRUE(std::filesystem::is_empty(m_dir.Path()));
}

TEST_F(ServerAPITest, RestartRunsTheLogSetUpAndCurlStartAgain)
{
    ServerAPI::Initialize();
    ServerAPI::Cleanup();
    const std::vector<std::string> firstRun{m_pidLine, "Curl global initialization", "Curl global cleanup"};
    ASSERT_EQ(firstRun, Log());

    // The first logger stays installed after Cleanup and still holds
    // OrvaneSDKServer.log when the second start-up opens its file, so the
    // second run writes OrvaneSDKServer_1.log.
    ServerAPI::Initialize();
    EXPECT_TRUE(ServerConnection::s_initialized);
    Logger::Get()->QueueMessage(std::string("second run"));
    ServerAPI::Cleanup();
    EXPECT_FALSE(ServerConnection::s_initialized);
    EXPECT_EQ(firstRun, Log());
    EXPECT_EQ((std::vector<std::string>{m_pidLine, "Curl global initialization", "second run", "Curl global cleanup"}),
              Log("OrvaneSDKServer_1.log"));

    // Replacing the first logger released it and its lock; the second holds
    // OrvaneSDKServer_1.log now, so a third run appends to the plain name.
    ServerAPI::Initialize();
    Logger::Get()->QueueMessage(std::string("third run"));
    ServerAPI::Cleanup();
    std::vector<std::string> bothRuns = firstRun;
    bothRuns.insert(bothRuns.end(),
                    {m_pidLine, "Curl global initialization", "third run", "Curl global cleanup"});
    EXPECT_EQ(bothRuns, Log());
    EXPECT_EQ(4u, Log("OrvaneSDKServer_1.log").size());
}

TEST_F(ServerAPITest, LogThatCannotBeOpenedFailsStartUpAndLeavesTheLibraryStopped)
{
    // Directories stand in all ten places the log could go.
    std::vector<std::string> names{"OrvaneSDKServer.log"};
    for (int n = 1; n <= 9; ++n)
        names.push_back("OrvaneSDKServer_" + std::to_string(n) + ".log");
    for (const std::string& name : names)
        ASSERT_TRUE(std::filesystem::create_directory(m_dir.File(name)));

    try {
        ServerAPI::Initialize();
        ADD_FAILURE() << "start-up succeeded without a log file";
    } catch (const QRX_InvalidArgument& e) {
        EXPECT_EQ(40463, e.GetStatus());
        EXPECT_EQ("SimpleLogger constructor failed. Couldn't open: '" + m_dir.File("OrvaneSDKServer.log") + "'",
                  std::string(e.what()));
    }
    EXPECT_FALSE(ServerConnection::s_initialized);

    // Still stopped, so the next call runs every step again.
    std::filesystem::remove(m_dir.File("OrvaneSDKServer_9.log"));
    ServerAPI::Initialize();
    EXPECT_TRUE(ServerConnection::s_initialized);
    ServerAPI::Cleanup();
    EXPECT_EQ((std::vector<std::string>{m_pidLine, "Curl global initialization", "Curl global cleanup"}),
              Log("OrvaneSDKServer_9.log"));
}

TEST_F(ServerAPITest, ProcessThatExitsWithoutCleanupStillWritesItsLog)
{
    // Without the exit hook the process would hang joining its writer; the
    // child is killed after the time allowed and the test fails.
    const ChildResult child = RunChild(ORV_LOG_CHILD, {"exit", "left without cleanup"});
    ASSERT_TRUE(child.exited) << child.output;
    ASSERT_EQ(0, child.exitCode) << child.output;
    EXPECT_EQ((std::vector<std::string>{PidLine(child.pid), "Curl global initialization", "left without cleanup"}),
              Log());
}
