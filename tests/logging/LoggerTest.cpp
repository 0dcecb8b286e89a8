// The log file as a user finds it: line format, text, the 1 MiB rule, start-up and shutdown lines,
// many threads, and the lock between two processes.
#include "logging/Logger.h"
#include "capi/ServerAPI.h"
#include "logging/SimpleLogger.h"
#include "tests/support/TestSupport.h"

#include <ext/stdio_filebuf.h>
#include <pthread.h>
#include <sys/file.h>

#include <algorithm>
#include <regex>

using namespace OrvaneInternal;
using namespace OrvaneTest;
using Strings = std::vector<std::string>;

namespace {

std::wstring Wide(const std::string& ascii)
{
    return std::wstring(ascii.begin(), ascii.end());
}
// A logger on `path` whose queue is written out on this thread by Drain.
RefCntPtr<SimpleLogger> Open(const std::string& path)
{
    return RefCntPtr<SimpleLogger>(new SimpleLogger(Wide(path), 0));
}
void Drain(SimpleLogger& logger)
{
    logger.QueueStop();
    logger.Run();
}
const std::regex kHeader(R"((\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}) \((\d{4,})\): )");
// The payloads of a log's lines, each checked for its header.
Strings Payloads(const std::string& path)
{
    Strings payloads;
    for (const std::string& line : SplitLines(ReadFileBytes(path))) {
        std::smatch header;
        EXPECT_TRUE(std::regex_search(line, header, kHeader) && header.position(0) == 0) << line;
        payloads.push_back(line.substr(header.length(0)));
    }
    return payloads;
}
// The lines that start with `prefix` (keep true) or do not (keep false).
Strings Filter(const Strings& lines, const std::string& prefix, bool keep)
{
    Strings kept;
    for (const std::string& line : lines)
        if ((line.rfind(prefix, 0) == 0) == keep)
            kept.push_back(line);
    return kept;
}
Strings Numbered(const std::string& prefix, int count)
{
    Strings lines;
    for (int i = 0; i < count; ++i)
        lines.push_back(prefix + std::to_string(i));
    return lines;
}
Strings RunLines(long pid, const Strings& middle, bool cleanup = true)
{
    Strings lines{"pid=" + std::to_string(pid) + "----------------------------------", "Curl global initialization"};
    lines.insert(lines.end(), middle.begin(), middle.end());
    if (cleanup)
        lines.push_back("Curl global cleanup");
    return lines;
}

class LogTest : public ::testing::Test {
  protected:
    // Runs orv_log_child (or, with logChild false, the program args names) with `args` to its end; its pid.
    long RunChild(const std::vector<std::string>& args, bool logChild = true)
    {
        std::vector<std::string> argv{logChild ? ORV_LOG_CHILD : args[0]};
        argv.insert(argv.end(), args.begin() + (logChild ? 0 : 1), args.end());
        ChildProcess child(argv, m_dir.File("child.out"));
        WaitUntil([&] { return !child.Running(); }, std::chrono::seconds(20));
        child.Stop();
        EXPECT_EQ(0, child.Status()) << ReadFileBytes(m_dir.File("child.out"));
        return child.Pid();
    }
    TempDirectory m_dir{"orv-log"};
    int m_logDir = setenv("ORV_SDK_LOGDIR", m_dir.Path().c_str(), 1);
    const std::string m_base = m_dir.File("OrvaneSDKServer.log");
    const std::string m_sibling = m_dir.File("OrvaneSDKServer_1.log");
};

} // namespace

// Every line of a message gets the message's header: local time and the thread that queued it. Text
// goes out as UTF-8; wide units no encoder takes become U+FFFD, narrow bytes that are not UTF-8 stay.
TEST_F(LogTest, EveryLineGetsTheHeaderOfItsMessageAndItsTextAsUtf8)
{
    setenv("TZ", "ORV-5:30", 1); // an offset zone: local time and UTC differ
    tzset();
    const std::tuple<std::wstring, std::string, Strings> cases[] = {
        {L"first\nsecond", "", {"first", "second"}},
        {L"end\n", "", {"end"}},
        {L"a\n\nb", "", {"a", "", "b"}},
        {L"", "", {}},
        {L"caf\u00e9 \U0001F600", "", {"caf\xC3\xA9 \xF0\x9F\x98\x80"}},
        {std::wstring(L"a") + wchar_t(0xD800) + L"b\nnext",
         "",
         {"a\xEF\xBF\xBD"
          "b",
          "next"}},
        {std::wstring(L"x") + wchar_t(0x110000), "", {"x\xEF\xBF\xBD"}},
        {L"", "caf\xC3\xA9 \xF0\x9F\x98\x80", {"caf\xC3\xA9 \xF0\x9F\x98\x80"}},
        {L"", "bad \xFF\xC3, \xE9t\xE9", {"bad \xFF\xC3, \xE9t\xE9"}},
        {L"", "caf\xC3\xA9\nbad \xE9", {"caf\xC3\xA9", "bad \xE9"}}};
    const auto now = [] { return SimpleLogger::FormatHeader(datetime::now(), 0).substr(0, 23); };
    for (const auto& [wide, narrow, lines] : cases) {
        std::remove(m_base.c_str());
        RefCntPtr<SimpleLogger> logger = Open(m_base);
        const std::string before = now();
        pid_t caller = 0;
        std::thread([&, &w = wide, &n = narrow] {
            caller = gettid();
            n.empty() ? logger->QueueMessage(w) : logger->QueueMessage(n);
        }).join();
        const std::string after = now();
        Drain(*logger);
        const std::string content = ReadFileBytes(m_base);
        EXPECT_EQ(lines, Payloads(m_base));
        std::smatch h;
        EXPECT_TRUE(lines.empty() || (std::regex_search(content, h, kHeader) && before <= h.str(1) &&
                                      h.str(1) <= after && std::stol(h.str(2)) == caller))
            << content << " from thread " << caller << " between " << before << " and " << after;
    }
}

TEST_F(LogTest, ExistingFileIsAppendedUpTo1MiBAndStartedAfreshBeyond)
{
    for (const std::size_t size : {0, 1048576, 1048577}) {
        WriteFileBytes(m_base, std::string(size, 'x'));
        RefCntPtr<SimpleLogger> logger = Open(m_base);
        logger->QueueMessage(std::string("new line"));
        Drain(*logger);
        const std::string kept(size <= 1048576 ? size : 0, 'x');
        WriteFileBytes(m_dir.File("tail"), ReadFileBytes(m_base).substr(kept.size()));
        EXPECT_EQ(kept, ReadFileBytes(m_base).substr(0, kept.size())) << size;
        EXPECT_EQ(Strings{"new line"}, Payloads(m_dir.File("tail"))) << size;
    }
}

// Start-up logs the pid, then starts libcurl; Cleanup stops libcurl and writes every queued line
// before it returns, and nothing after. A second Initialize or Cleanup does nothing; a restart
// while the first logger still holds the file goes to the next name.
TEST_F(LogTest, StartupAndShutdownLines)
{
    ServerAPI::Cleanup();
    EXPECT_TRUE(std::filesystem::is_empty(m_dir.Path()));
    ServerAPI::Initialize();
    ServerAPI::Initialize();
    Logger::Get()->QueueMessage(std::wstring(L"first run"));
    ServerAPI::Cleanup();
    ServerAPI::Cleanup();
    Logger::Get()->QueueMessage(std::string("after cleanup"));
    ServerAPI::Initialize();
    Logger::Get()->QueueMessage(std::string("second run"));
    ServerAPI::Cleanup();
    EXPECT_EQ(RunLines(getpid(), {"first run"}), Payloads(m_base));
    EXPECT_EQ(RunLines(getpid(), {"second run"}), Payloads(m_sibling));
}

// 8 threads of 10,000 messages, every fourth two lines long: nothing lost, torn or mixed.
TEST_F(LogTest, EveryLineQueuedBeforeCleanupIsWrittenWhole)
{
    constexpr int kThreads = 8, kMessages = 10000;
    ServerAPI::Initialize();
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < kMessages; ++i) {
                const std::string text = "thread " + std::to_string(t) + " line " + std::to_string(i);
                const std::string message = i % 4 == 3 ? text + "\n" + text + " more" : text;
                i % 2 ? Logger::Get()->QueueMessage(message) : Logger::Get()->QueueMessage(Wide(message));
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    ServerAPI::Cleanup();
    const Strings lines = SplitLines(ReadFileBytes(m_base));
    ASSERT_EQ(std::size_t(kThreads * kMessages * 5 / 4 + 3), lines.size());
    std::vector<int> next(kThreads, 0);
    for (std::size_t i = 2; i + 1 < lines.size(); ++i) {
        int t = -1;
        std::smatch header;
        ASSERT_TRUE(std::regex_search(lines[i], header, kHeader) &&
                    std::sscanf(header.suffix().str().c_str(), "thread %d", &t) == 1 && t >= 0 && t < kThreads)
            << lines[i];
        const std::string text = header.str() + "thread " + std::to_string(t) + " line " + std::to_string(next[t]);
        ASSERT_EQ(text, lines[i]);
        if (next[t]++ % 4 == 3) {
            ASSERT_EQ(text + " more", lines[++i]);
        }
    }
    EXPECT_EQ(std::vector<int>(kThreads, kMessages), next);
}

// Whoever holds the base name, a shell with flock or a host later killed, sends the next process to
// the first numbered name until it is gone; the killed host's lines stay and the next one appends.
TEST_F(LogTest, LockHolderInAnotherProcessSendsTheLogToTheNextName)
{
    ChildProcess shell({"/bin/sh", "-c", "exec 9>>\"$0\" && flock -x 9 && exec sleep 60", m_base},
                       m_dir.File("shell.out"));
    ASSERT_TRUE(WaitUntil([&] { // another process holds the lock
        const int fd = open(m_base.c_str(), O_RDONLY | O_CLOEXEC);
        const bool held = flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
        close(fd);
        return held;
    }));
    const long beside = RunChild({"log", "beside the shell"});
    EXPECT_EQ(RunLines(beside, {"beside the shell"}), Payloads(m_sibling));
    shell.Stop();
    ChildProcess host({ORV_LOG_CHILD, "hold", "holding"}, m_dir.File("host.out"));
    ASSERT_TRUE(WaitUntil([&] { return ReadFileBytes(m_base).find("holding") != std::string::npos; }));
    kill(host.Pid(), SIGKILL);
    ASSERT_TRUE(WaitUntil([&] { return !host.Running(); }));
    const long after = RunChild({"log", "after the host"});
    Strings expected = RunLines(host.Pid(), {"holding"}, false);
    for (const std::string& line : RunLines(after, {"after the host"}))
        expected.push_back(line);
    EXPECT_EQ(expected, Payloads(m_base));
}

// A host that returns without Cleanup still gets its last line written. With ORV_SDK_LOGDIR unset,
// empty, naming no directory or naming a file, the log goes to the current directory.
TEST_F(LogTest, LastLineWithoutCleanupAndTheCurrentDirectoryAsFallback)
{
    const long host = RunChild({"exit", "no cleanup"});
    EXPECT_EQ(RunLines(host, {"no cleanup"}, false), Payloads(m_base));
    TempDirectory current("orv-cwd");
    const std::string plainFile = m_dir.File("plain");
    WriteFileBytes(plainFile, "");
    for (const char* value : {static_cast<const char*>(nullptr), "", "/nonexistent/orv", plainFile.c_str()}) {
        SCOPED_TRACE(value == nullptr ? "unset" : value);
        value == nullptr ? unsetenv("ORV_SDK_LOGDIR") : setenv("ORV_SDK_LOGDIR", value, 1);
        const long pid =
            RunChild({"/bin/sh", "-c", "cd \"$0\" && exec \"$1\" log fallback", current.Path(), ORV_LOG_CHILD}, false);
        EXPECT_EQ(RunLines(pid, {"fallback"}), Payloads(current.File("OrvaneSDKServer.log")));
        std::filesystem::remove(current.File("OrvaneSDKServer.log"));
    }
}

// A host forks while one of its threads logs; the child logs and stops the library, the parent goes
// on. Each process's lines reach the file once, the lines of each thread in their order. The thread
// sanitizer cannot follow a thread started in a forked child, so there the child only ends; the
// address sanitizer's allocator keeps the locks other threads held at the fork, so there the
// parent forks once its other threads rest.
TEST_F(LogTest, ForkedChildLogsThroughAWriterOfItsOwnAndTheParentGoesOn)
{
#if defined(__SANITIZE_THREAD__)
    const int childLines = 0;
    const char* const when = "busy";
#elif defined(__SANITIZE_ADDRESS__)
    const int childLines = 100;
    const char* const when = "idle";
#else
    const int childLines = 100;
    const char* const when = "busy";
#endif
    const long parent = RunChild({"fork", "before the fork", std::to_string(childLines), when});
    const Strings lines = Payloads(m_base);
    EXPECT_EQ(Numbered("child line ", childLines), Filter(lines, "child line ", true));
    EXPECT_EQ(Numbered("parent thread ", 2000), Filter(lines, "parent thread ", true));
    Strings rest = Filter(Filter(lines, "child line ", false), "parent thread ", false);
    Strings expected = RunLines(parent, {"before the fork", "the child exited with 0", "after the fork"});
    if (childLines > 0)
        expected.push_back("Curl global cleanup"); // the child's, written before it ended
    std::sort(rest.begin(), rest.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(expected, rest);
}

// A thread cancelled while the logger reads its message (from a pipe: read is a cancellation point)
// ends as cancelled, and the logger goes on.
TEST_F(LogTest, ThreadCancelledWhileItsMessageIsReadEnds)
{
    RefCntPtr<SimpleLogger> logger = Open(m_base);
    int pipeEnds[2];
    ASSERT_EQ(0, pipe2(pipeEnds, O_CLOEXEC));
    __gnu_cxx::stdio_filebuf<char> buffer(pipeEnds[0], std::ios_base::in);
    std::istream message(&buffer);
    std::pair<SimpleLogger*, std::istream*> work(logger.get(), &message);
    pthread_t thread;
    const auto body = [](void* argument) -> void* {
        auto* work = static_cast<std::pair<SimpleLogger*, std::istream*>*>(argument);
        work->first->QueueMessage(*work->second);
        return nullptr;
    };
    ASSERT_EQ(0, pthread_create(&thread, nullptr, body, &work));
    EXPECT_EQ(0, pthread_cancel(thread));
    void* result = nullptr;
    EXPECT_EQ(0, pthread_join(thread, &result));
    EXPECT_EQ(PTHREAD_CANCELED, result);
    close(pipeEnds[1]);
    logger->QueueMessage(std::string("after the cancel"));
    Drain(*logger);
    EXPECT_EQ(Strings{"after the cancel"}, Payloads(m_base));
}
