#include "logging/InitializeLogger.h"

#include "logging/LogFileTestSupport.h"
#include "logging/Logger.h"
#include "logging/SimpleLogger.h"

#include <gtest/gtest.h>

#include <unistd.h>

using namespace OrvaneInternal;
using namespace LogFileTest;

namespace {

// Stops and releases what InitializeLogger started, so that the next start in
// the same test finds the file unlocked.
void StopLogger(RefCntPtr<Thread>& loggerThread)
{
    if (loggerThread) {
        Logger::Get()->QueueStop();
        loggerThread->Join();
        loggerThread.reset();
    }
    Logger::Init(RefCntPtr<Logger>());
}

struct StartedLogger {
    StartedLogger() { InitializeLogger(thread); }
    ~StartedLogger() { StopLogger(thread); }
    RefCntPtr<Thread> thread;
};

}  // namespace

TEST(InitializeLogger, FirstLineIsThePidLine)
{
    TempDir dir;
    ScopedEnv logDir("ORV_SDK_LOGDIR", dir.Path());
    {
        StartedLogger started;
        EXPECT_EQ(dir.WideFile("OrvaneSDKServer.log"), Logger::Get()->GetBaseFilePath());
        EXPECT_NE(nullptr, dynamic_cast<SimpleLogger*>(Logger::Get().get()));
    }
    const std::string content = ReadFile(dir.File("OrvaneSDKServer.log"));
    const std::vector<std::string> lines = Lines(content);
    ASSERT_EQ(1u, lines.size()) << content;
    EXPECT_EQ('\n', content.back());
    const std::optional<Regex::Match> match = HeaderPattern().Search(lines[0]);
    ASSERT_TRUE(match) << lines[0];
    EXPECT_EQ(PidLine(::getpid()), match->suffix);
    EXPECT_EQ(static_cast<unsigned long>(::gettid()), std::stoul(match->groups[8]));  // queued by the caller
}

TEST(InitializeLogger, LogDirectoryFallsBackToTheCurrentDirectory)
{
    TempDir cwd;
    TempDir logDir;
    WriteFile(logDir.File("plain-file"), "not a directory");
    ScopedCwd inCwd(cwd.Path());
    struct Case {
        const char* name;
        std::optional<std::string> value;
        std::string expectedFile;
    };
    const Case cases[] = {
        {"unset", std::nullopt, cwd.File("OrvaneSDKServer.log")},
        {"empty", std::string(), cwd.File("OrvaneSDKServer.log")},
        {"missing directory", logDir.File("missing"), cwd.File("OrvaneSDKServer.log")},
        {"regular file", logDir.File("plain-file"), cwd.File("OrvaneSDKServer.log")},
        {"directory", logDir.Path(), logDir.File("OrvaneSDKServer.log")},
        {"directory with a trailing slash", logDir.Path() + "/", logDir.File("OrvaneSDKServer.log")},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        {
            ScopedEnv env("ORV_SDK_LOGDIR", c.value);
            StartedLogger started;
        }
        EXPECT_EQ(std::vector<std::string>{PidLine(::getpid())}, Payloads(FileLines(c.expectedFile)));
        std::vector<std::string> created;
        for (const TempDir* dir : {&cwd, &logDir}) {
            for (const auto& entry : std::filesystem::directory_iterator(dir->Path())) {
                if (entry.path().filename() != "plain-file")
                    created.push_back(entry.path().string());
            }
        }
        EXPECT_EQ(std::vector<std::string>{c.expectedFile}, created);
        std::filesystem::remove(c.expectedFile);
    }
}

TEST(InitializeLogger, RestartWhileTheWriterRunsStopsItFirst)
{
    TempDir dir;
    ScopedEnv logDir("ORV_SDK_LOGDIR", dir.Path());
    RefCntPtr<Thread> loggerThread;
    InitializeLogger(loggerThread);
    Logger::Get()->QueueMessage(std::string("for the first writer"));

    // The first logger is still installed, and holds its file, while the second
    // is opened; the second therefore takes the first numbered name.
    InitializeLogger(loggerThread);
    Logger::Get()->QueueMessage(std::string("for the second writer"));
    StopLogger(loggerThread);

    EXPECT_EQ((std::vector<std::string>{PidLine(::getpid()), "for the first writer"}),
              Payloads(FileLines(dir.File("OrvaneSDKServer.log"))));
    EXPECT_EQ((std::vector<std::string>{PidLine(::getpid()), "for the second writer"}),
              Payloads(FileLines(dir.File("OrvaneSDKServer_1.log"))));
}

TEST(InitializeLogger, FailureLeavesTheRunningLoggerInPlace)
{
    TempDir dir;
    ScopedEnv logDir("ORV_SDK_LOGDIR", dir.Path());
    RefCntPtr<Thread> loggerThread;
    InitializeLogger(loggerThread);
    const RefCntPtr<Logger> first = Logger::Get();
    const RefCntPtr<Thread> firstThread = loggerThread;

    // Every further name is taken by a directory.
    for (int n = 1; n <= 9; ++n)
        std::filesystem::create_directory(dir.File("OrvaneSDKServer_" + std::to_string(n) + ".log"));
    EXPECT_THROW(InitializeLogger(loggerThread), QRX_InvalidArgument);
    EXPECT_EQ(first.get(), Logger::Get().get());
    EXPECT_EQ(firstThread.get(), loggerThread.get());

    Logger::Get()->QueueMessage(std::string("still logging"));
    StopLogger(loggerThread);
    EXPECT_EQ((std::vector<std::string>{PidLine(::getpid()), "still logging"}),
              Payloads(FileLines(dir.File("OrvaneSDKServer.log"))));
}
