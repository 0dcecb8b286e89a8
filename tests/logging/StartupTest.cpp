// Library start-up and shutdown with a real log file: InitializeLogger,
// ServerAPI::Initialize and ServerAPI::Cleanup.
#include "capi/ServerAPI.h"
#include "logging/InitializeLogger.h"
#include "logging/Logger.h"
#include "logging/SimpleLogger.h"
#include "server/ServerConnection.h"
#include "sys/Errors.h"

#include "logging/LogFileTestSupport.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <thread>

using namespace OrvaneInternal;
using namespace LogFileTest;
using Strings = std::vector<std::string>;

namespace {

class NoteLogger : public Logger {
public:
    void Run() override {}
    void QueueMessage(std::wistream&) override { ++calls; }
    void QueueMessage(std::istream&) override { ++calls; }
    void QueueMessage(const std::wstring&) override { ++calls; }
    void QueueMessage(const std::string&) override { ++calls; }
    void Flush() override {}
    void QueueStop() override { ++calls; }
    const std::wstring& GetBaseFilePath() const override { return path; }
    int calls = 0;
    std::wstring path;
};

// Stops and releases what InitializeLogger started.
void StopLogger(RefCntPtr<Thread>& loggerThread)
{
    if (loggerThread) {
        Logger::Get()->QueueStop();
        loggerThread->Join();
        loggerThread.reset();
    }
    Logger::Init(RefCntPtr<Logger>());
}

class StartupTest : public ::testing::Test {
protected:
    Strings Log(const std::string& name = "OrvaneSDKServer.log") const { return FilePayloads(m_dir.File(name)); }
    Strings RunLines(const std::vector<std::string>& middle = {}) const
    {
        Strings lines{m_pidLine, "Curl global initialization"};
        lines.insert(lines.end(), middle.begin(), middle.end());
        lines.push_back("Curl global cleanup");
        return lines;
    }

    TempDirectory m_dir{"orv-startup"};
    int m_logDir = ::setenv("ORV_SDK_LOGDIR", m_dir.Path().c_str(), 1);
    const std::string m_pidLine = PidLine(::getpid());
};

}  // namespace

TEST_F(StartupTest, StartsTheLogThenCurlAndStopsCurlThenTheLog)
{
    ServerAPI::Initialize();
    EXPECT_TRUE(ServerConnection::s_initialized);
    EXPECT_EQ(Wide(m_dir.File("OrvaneSDKServer.log")), Logger::Get()->GetBaseFilePath());
    EXPECT_NE(nullptr, dynamic_cast<SimpleLogger*>(Logger::Get().get()));
    Logger::Get()->QueueMessage(std::wstring(L"queued before cleanup"));
    ServerAPI::Cleanup();
    EXPECT_FALSE(ServerConnection::s_initialized);
    // Read at once: Cleanup returns only when the file is complete.
    EXPECT_EQ(RunLines({"queued before cleanup"}), Log());
    const Strings lines = FileLines(m_dir.File("OrvaneSDKServer.log"));
    EXPECT_TRUE(IsHeader(HeaderOf(lines.at(0)))) << lines[0];
    EXPECT_EQ(static_cast<unsigned long>(::gettid()), ThreadOf(lines[0]));  // the pid line is queued by the caller
}

// 8 threads of 10,000 messages; every fourth is two lines, which must stay
// together under one header. Nothing lost, torn or mixed when Cleanup returns,
// and nothing written after it.
TEST_F(StartupTest, EveryLineQueuedBeforeCleanupIsWrittenWholeAndNoneAfter)
{
    constexpr int kThreads = 8;
    constexpr int kMessages = 10000;
    ServerAPI::Initialize();
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            RefCntPtr<Logger> logger = Logger::Get();
            for (int i = 0; i < kMessages; ++i) {
                std::string text = "thread " + std::to_string(t) + " line " + std::to_string(i);
                if (i % 4 == 3)
                    text += "\n" + text + " more";
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

    const std::string content = ReadFileBytes(m_dir.File("OrvaneSDKServer.log"));
    ASSERT_FALSE(content.empty());
    EXPECT_EQ('\n', content.back());
    const Strings lines = Lines(content);
    ASSERT_EQ(static_cast<std::size_t>(kThreads * kMessages * 5 / 4 + 3), lines.size());
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
        const std::string text = "thread " + std::to_string(t) + " line " + std::to_string(next[t]);
        ASSERT_EQ(text, PayloadOf(lines[i]));
        if (next[t] % 4 == 3) {
            ++i;
            ASSERT_EQ(HeaderOf(lines[i - 1]) + text + " more", lines[i]);
        }
        ++next[t];
    }
    EXPECT_EQ(std::vector<int>(kThreads, kMessages), next);
}

TEST_F(StartupTest, SecondInitializeDoesNothingAndOneCleanupStopsAndMore)
{
    // Cleanup before any Initialize does nothing at all.
    RefCntPtr<NoteLogger> noted(new NoteLogger());
    Logger::Init(RefCntPtr<Logger>(noted));
    ServerAPI::Cleanup();
    EXPECT_EQ(0, noted->calls);
    EXPECT_TRUE(std::filesystem::is_empty(m_dir.Path()));

    ServerAPI::Initialize();
    const RefCntPtr<Logger> logger = Logger::Get();
    ServerAPI::Initialize();
    EXPECT_EQ(logger.get(), Logger::Get().get());
    ServerAPI::Cleanup();
    EXPECT_FALSE(ServerConnection::s_initialized);
    EXPECT_EQ(RunLines(), Log());
    EXPECT_FALSE(std::filesystem::exists(m_dir.File("OrvaneSDKServer_1.log")));

    // A second Cleanup queues nothing and stops nothing.
    Logger::Init(RefCntPtr<Logger>(noted));
    ServerAPI::Cleanup();
    EXPECT_EQ(0, noted->calls);
    EXPECT_FALSE(ServerConnection::s_initialized);
}

TEST_F(StartupTest, RestartRunsTheLogSetUpAndCurlStartAgain)
{
    ServerAPI::Initialize();
    ServerAPI::Cleanup();
    ASSERT_EQ(RunLines(), Log());
    // The first logger stays installed after Cleanup and still holds
    // OrvaneSDKServer.log when the second start-up opens its file.
    ServerAPI::Initialize();
    EXPECT_TRUE(ServerConnection::s_initialized);
    Logger::Get()->QueueMessage(std::string("second run"));
    ServerAPI::Cleanup();
    EXPECT_EQ(RunLines(), Log());
    EXPECT_EQ(RunLines({"second run"}), Log("OrvaneSDKServer_1.log"));
    // Replacing the first logger released its lock; the second holds _1 now.
    ServerAPI::Initialize();
    Logger::Get()->QueueMessage(std::string("third run"));
    ServerAPI::Cleanup();
    Strings both = RunLines();
    for (const std::string& line : RunLines({"third run"}))
        both.push_back(line);
    EXPECT_EQ(both, Log());
    EXPECT_EQ(4u, Log("OrvaneSDKServer_1.log").size());
}

TEST_F(StartupTest, LogDirectoryFallsBackToTheCurrentDirectory)
{
    TempDirectory cwd("orv-cwd");
    OrvaneTest::WriteFileBytes(m_dir.File("plain-file"), "not a directory");
    const std::filesystem::path previous = std::filesystem::current_path();
    std::filesystem::current_path(cwd.Path());
    const struct {
        const char* name;
        std::optional<std::string> value;
        std::string expectedFile;
    } cases[] = {
        {"unset", std::nullopt, cwd.File("OrvaneSDKServer.log")},
        {"empty", std::string(), cwd.File("OrvaneSDKServer.log")},
        {"missing directory", m_dir.File("missing"), cwd.File("OrvaneSDKServer.log")},
        {"regular file", m_dir.File("plain-file"), cwd.File("OrvaneSDKServer.log")},
        {"directory", m_dir.Path(), m_dir.File("OrvaneSDKServer.log")},
        {"directory with a trailing slash", m_dir.Path() + "/", m_dir.File("OrvaneSDKServer.log")},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        SetEnv("ORV_SDK_LOGDIR", c.value);
        RefCntPtr<Thread> thread;
        InitializeLogger(thread);
        StopLogger(thread);
        EXPECT_EQ(Strings{m_pidLine}, FilePayloads(c.expectedFile));
        Strings created;
        for (const std::string& dir : {cwd.Path(), m_dir.Path()})
            for (const auto& entry : std::filesystem::directory_iterator(dir))
                if (entry.path().filename() != "plain-file")
                    created.push_back(entry.path().string());
        EXPECT_EQ(Strings{c.expectedFile}, created);
        std::filesystem::remove(c.expectedFile);
    }
    std::filesystem::current_path(previous);
}

TEST_F(StartupTest, InitializeLoggerWhileTheWriterRunsStopsItFirstAndAFailureKeepsIt)
{
    RefCntPtr<Thread> loggerThread;
    InitializeLogger(loggerThread);
    Logger::Get()->QueueMessage(std::string("for the first writer"));
    // The first logger still holds its file while the second is opened; kept
    // alive here, it goes on holding it.
    const RefCntPtr<Logger> first = Logger::Get();
    InitializeLogger(loggerThread);
    Logger::Get()->QueueMessage(std::string("for the second writer"));
    const RefCntPtr<Logger> second = Logger::Get();
    const RefCntPtr<Thread> secondThread = loggerThread;
    EXPECT_EQ((Strings{m_pidLine, "for the first writer"}), Log());

    // Every further name is taken: the running logger stays in place.
    for (int n = 2; n <= 9; ++n)
        std::filesystem::create_directory(m_dir.File("OrvaneSDKServer_" + std::to_string(n) + ".log"));
    try {
        InitializeLogger(loggerThread);
        ADD_FAILURE() << "a logger without a file";
    } catch (const QRX_InvalidArgument& e) {  // start-up fails with the constructor's text
        EXPECT_EQ("SimpleLogger constructor failed. Couldn't open: '" + m_dir.File("OrvaneSDKServer.log") + "'",
                  std::string(e.what()));
    }
    EXPECT_EQ(second.get(), Logger::Get().get());
    EXPECT_EQ(secondThread.get(), loggerThread.get());
    Logger::Get()->QueueMessage(std::string("still logging"));
    StopLogger(loggerThread);
    EXPECT_EQ((Strings{m_pidLine, "for the second writer", "still logging"}), Log("OrvaneSDKServer_1.log"));
}
