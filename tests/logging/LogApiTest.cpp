// The log as a host places and follows it through the exported functions: the directory it
// chooses, the path the library reports, and a listener that sees every line on the writer thread.
#include "tests/support/TestSupport.h"

#include <orvane/OrvaneServerExt.h>

#include <mutex>
#include <optional>
#include <thread>

using namespace OrvaneTest;
using Strings = std::vector<std::string>;

namespace {

// Every file under `root`, relative to it.
Strings FilesUnder(const std::string& root)
{
    Strings files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root))
        if (entry.is_regular_file())
            files.push_back(std::filesystem::relative(entry.path(), root).string());
    std::sort(files.begin(), files.end());
    return files;
}

ORV_RESULT SetLogDirectory(const std::optional<std::string>& directory)
{
    return OrvServerAPISetLogDirectory(directory ? U(*directory).c_str() : nullptr);
}

// What a listener was handed, and on which threads.
struct Heard {
    std::mutex mutex;
    Strings lines;
    std::vector<std::thread::id> threads;

    static void Listen(void* userData, const char* line)
    {
        auto* heard = static_cast<Heard*>(userData);
        std::lock_guard<std::mutex> lock(heard->mutex);
        heard->lines.push_back(line);
        heard->threads.push_back(std::this_thread::get_id());
    }
};

class LogApiTest : public LibraryTest {
  protected:
    void SetUp() override
    {
        for (const char* directory : {"environment", "chosen", "working"})
            std::filesystem::create_directory(m_dir.File(directory));
        setenv("ORV_SDK_LOGDIR", m_dir.File("environment").c_str(), 1);
        ASSERT_EQ(0, chdir(m_dir.File("working").c_str()));
    }
    void TearDown() override
    {
        LibraryTest::TearDown();
        EXPECT_EQ(ORV_RESULT_Success, SetLogDirectory(std::nullopt));
        EXPECT_EQ(ORV_RESULT_Success, OrvServerAPISetLogListener(nullptr, nullptr));
        EXPECT_EQ(0, chdir("/"));
    }
};

} // namespace

// Where the log goes and what GetLogPath says: a chosen directory before ORV_SDK_LOGDIR before the
// working directory; a chosen directory without a usable name fails start-up with its own code and
// a text naming it, and creates nothing. Each row first restores the default rule with a null
// directory, which the rows after a chosen one prove; an empty directory starts the library with
// no log file.
TEST_F(LogApiTest, ChosenDirectoryEnvironmentOrWorkingDirectoryAndThePathInUse)
{
    const std::string taken = "chosen/OrvaneSDKServer.log";
    Strings everyName = {taken};
    for (int n = 1; n <= 9; ++n)
        everyName.push_back("chosen/OrvaneSDKServer_" + std::to_string(n) + ".log");
    const struct {
        const char* situation;
        std::optional<std::string> chosen; // under m_dir; none: no call but the null one
        bool environment;
        Strings takenNames; // directories where files would go
        ORV_RESULT result;
        std::string log; // under m_dir; empty: none
    } rows[] = {
        {"chosen, over the environment", "chosen", true, {}, ORV_RESULT_Success, "chosen/OrvaneSDKServer.log"},
        {"chosen, every name taken", "chosen", true, everyName, ORV_RESULT_LogUnavailable, ""},
        {"chosen, missing", "missing", false, {}, ORV_RESULT_LogUnavailable, ""},
        {"environment", std::nullopt, true, {}, ORV_RESULT_Success, "environment/OrvaneSDKServer.log"},
        {"working directory", std::nullopt, false, {}, ORV_RESULT_Success, "working/OrvaneSDKServer.log"},
        {"no log file", "", false, {}, ORV_RESULT_Success, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.situation);
        for (const std::string& name : row.takenNames)
            std::filesystem::create_directory(m_dir.File(name));
        const Strings before = FilesUnder(m_dir.Path());
        row.environment ? setenv("ORV_SDK_LOGDIR", m_dir.File("environment").c_str(), 1) : unsetenv("ORV_SDK_LOGDIR");
        ASSERT_EQ(ORV_RESULT_Success, SetLogDirectory(std::nullopt));
        if (row.chosen) {
            const std::string chosen = row.chosen->empty() ? "" : m_dir.File(*row.chosen);
            ASSERT_EQ(ORV_RESULT_Success, SetLogDirectory(chosen));
        }
        EXPECT_EQ(nullptr, OrvServerAPIGetLogPath());
        OrvSetLastErrorMessage(L"untouched");
        EXPECT_EQ(row.result, OrvServerAPIInitialize());
        const char* path = OrvServerAPIGetLogPath();
        const std::string reported = path == nullptr ? "" : path;
        if (row.result == ORV_RESULT_Success) {
            EXPECT_EQ("untouched", LastError());
        } else {
            EXPECT_NE(std::string::npos, LastError().find(m_dir.File(*row.chosen))) << LastError();
        }
        EXPECT_EQ(row.log.empty() ? "" : m_dir.File(row.log), reported);
        EXPECT_EQ(ORV_RESULT_Success, OrvServerAPICleanup());
        EXPECT_EQ(nullptr, OrvServerAPIGetLogPath());
        Strings expected = before;
        if (!row.log.empty())
            expected.push_back(row.log);
        std::sort(expected.begin(), expected.end());
        EXPECT_EQ(expected, FilesUnder(m_dir.Path()));
        if (!row.log.empty()) {
            EXPECT_NE(std::string::npos, ReadFileBytes(m_dir.File(row.log)).find("): pid="));
            std::filesystem::remove(m_dir.File(row.log));
        }
        for (const std::string& name : row.takenNames)
            std::filesystem::remove(m_dir.File(name));
    }
}

// The listener gets every line of the file, in order, on one thread that is not the caller's,
// with its userData; once removed it is never called again.
TEST_F(LogApiTest, ListenerHearsEveryLineOnTheWriterThread)
{
    Heard heard;
    ASSERT_EQ(ORV_RESULT_Success, OrvServerAPISetLogListener(&Heard::Listen, &heard));
    ASSERT_EQ(ORV_RESULT_Success, OrvServerAPIInitialize());
    ASSERT_EQ(ORV_RESULT_Success, OrvServerAPICleanup());
    const Strings written = SplitLines(ReadFileBytes(m_dir.File("environment/OrvaneSDKServer.log")));
    ASSERT_EQ(3u, written.size()); // the pid, libcurl's start and stop
    EXPECT_EQ(written, heard.lines);
    const std::thread::id writer = heard.threads.front();
    EXPECT_NE(std::this_thread::get_id(), writer);
    EXPECT_EQ(std::vector<std::thread::id>(written.size(), writer), heard.threads);

    ASSERT_EQ(ORV_RESULT_Success, OrvServerAPISetLogListener(nullptr, nullptr));
    ASSERT_EQ(ORV_RESULT_Success, OrvServerAPIInitialize());
    const std::string second = OrvServerAPIGetLogPath();
    ASSERT_EQ(ORV_RESULT_Success, OrvServerAPICleanup());
    EXPECT_EQ(3u, SplitLines(ReadFileBytes(second)).size());
    EXPECT_EQ(written, heard.lines);
}
