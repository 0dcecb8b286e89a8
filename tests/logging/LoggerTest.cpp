// The log file as a user finds it: line format, text, the 1 MiB rule, taken names, rotation,
// start-up and shutdown lines, many threads, the log directory, and the lock between two processes.
#include "capi/ServerAPI.h"
#include "logging/InitializeLogger.h"
#include "logging/Logger.h"
#include "logging/SimpleLogger.h"
#include "sys/Errors.h"
#include "sys/Thread.h"
#include "tests/support/TestSupport.h"

#include <sys/file.h>

#include <algorithm>
#include <regex>

using namespace OrvaneInternal;
using namespace OrvaneTest;
using Strings = std::vector<std::string>;

namespace {

std::wstring Wide(const std::string& ascii) { return std::wstring(ascii.begin(), ascii.end()); }
RefCntPtr<SimpleLogger> Open(const std::string& path, int rotation = 0) { return RefCntPtr<SimpleLogger>(new SimpleLogger(Wide(path), rotation)); }
void Drain(SimpleLogger& logger)  // writes everything queued so far, on this thread
{
    logger.QueueStop();
    logger.Run();
}
const std::regex kHeader(R"((\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}) \((\d{4,})\): )");
// The payloads of a log's lines, each checked for its header; a last line without newline is kept.
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
std::string PidLine(long pid) { return "pid=" + std::to_string(pid) + "----------------------------------"; }
Strings RunLines(long pid, const Strings& middle)
{
    Strings lines{PidLine(pid), "Curl global initialization"};
    lines.insert(lines.end(), middle.begin(), middle.end());
    lines.push_back("Curl global cleanup");
    return lines;
}

class LogTest : public ::testing::Test {
protected:
    // Runs orv_log_child with `args` to its end (killed after 20 s); its pid.
    long RunChild(const std::vector<std::string>& args)
    {
        std::vector<std::string> argv{ORV_LOG_CHILD};
        argv.insert(argv.end(), args.begin(), args.end());
        ChildProcess child(argv, m_dir.File("child.out"));
        WaitUntil([&] { return !child.Running(); }, std::chrono::seconds(20));
        child.Stop();
        EXPECT_EQ("exited with status 0", child.ExitDescription()) << ReadFileBytes(m_dir.File("child.out"));
        return child.Pid();
    }
    bool LockedElsewhere(const std::string& path)
    {
        const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        const bool held = fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
        close(fd);
        return held;
    }
    TempDirectory m_dir{"orv-log"};
    int m_logDir = setenv("ORV_SDK_LOGDIR", m_dir.Path().c_str(), 1);
    const std::string m_base = m_dir.File("OrvaneSDKServer.log"), m_sibling = m_dir.File("OrvaneSDKServer_1.log");
};

}  // namespace

// Every line of a message gets the message's header: the writer's clock (local or UTC) and the
// thread that queued it, whichever overload queued it.
TEST_F(LogTest, EveryLineOfAMessageGetsTheHeaderOfItsThreadAndTime)
{
    setenv("TZ", "ORV-5:30", 1);  // an offset zone: local time and UTC differ
    tzset();
    const std::pair<const char*, Strings> cases[] = {{"first\nsecond", {"first", "second"}}, {"trailing\n", {"trailing"}},
                                                     {"a\n\nb", {"a", "", "b"}}, {"\n", {""}}, {"", {}}};
    int file = 0;
    for (const bool utc : {false, true})
        for (const auto& [text, lines] : cases)
            for (int overload = 0; overload < 4; ++overload) {
                SCOPED_TRACE(std::to_string(overload) + (utc ? " UTC: " : ": ") + text);
                const std::string path = m_dir.File(std::to_string(file++));
                SimpleLogger::s_utc = utc;
                RefCntPtr<SimpleLogger> logger = Open(path);
                std::string before, after;
                pid_t caller = 0;
                std::thread([&] {
                    const auto stamp = [utc] { return SimpleLogger::FormatHeader(utc ? datetime::utc() : datetime::now(), 0).substr(0, 23); };
                    caller = gettid(), before = stamp();
                    std::wistringstream wide(Wide(text));
                    std::istringstream narrow(text);
                    overload == 0 ? logger->QueueMessage(Wide(text)) : overload == 1 ? logger->QueueMessage(std::string(text))
                                  : overload == 2 ? logger->QueueMessage(wide) : logger->QueueMessage(narrow);
                    after = stamp();
                }).join();
                Drain(*logger);
                SimpleLogger::s_utc = false;
                EXPECT_EQ(lines, Payloads(path));
                const std::string content = ReadFileBytes(path);
                std::smatch header;
                if (!lines.empty() && std::regex_search(content, header, kHeader)) {
                    EXPECT_TRUE(before <= header.str(1) && header.str(1) <= after) << header.str(1);
                    EXPECT_EQ(caller, std::stol(header.str(2)));
                    EXPECT_EQ(lines.size(), static_cast<std::size_t>(std::count(content.begin(), content.end(), '(')));
                }
            }
}

TEST_F(LogTest, TextReachesTheFileAsUtf8)
{
    // Narrow text is widened as signed chars and written back as its bytes; units no encoder takes become U+FFFD.
    const struct {
        std::wstring wide;  // used when `narrow` is null
        const char* narrow;
        std::string expected;
    } cases[] = {
        {L"caf\u00e9 \U0001F600", nullptr, "caf\xC3\xA9 \xF0\x9F\x98\x80"},
        {L"", "caf\xC3\xA9 \xF0\x9F\x98\x80", "caf\xC3\xA9 \xF0\x9F\x98\x80"},
        {L"", "bad \xFF\xC3 end\nlatin \xE9t\xE9", "bad \xFF\xC3 end\nlatin \xE9t\xE9"},
        {std::wstring(L"a") + wchar_t(0xD800) + L"b\nnext", nullptr, "a\xEF\xBF\xBD" "b\nnext"},
        {std::wstring(L"x") + wchar_t(0x110000), nullptr, "x\xEF\xBF\xBD"},
        {std::wstring(L"y") + wchar_t(-1), nullptr, "y\xFF"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.expected);
        std::remove(m_base.c_str());
        RefCntPtr<SimpleLogger> logger = Open(m_base);
        c.narrow ? logger->QueueMessage(std::string(c.narrow)) : logger->QueueMessage(c.wide);
        Drain(*logger);
        const Strings payloads = Payloads(m_base);
        std::string joined;
        for (const std::string& payload : payloads)
            joined += (joined.empty() ? "" : "\n") + payload;
        EXPECT_EQ(c.expected, joined);
    }
}

TEST_F(LogTest, ExistingFileIsAppendedUpTo1MiBAndStartedAfreshBeyond)
{
    for (const std::size_t size : {std::size_t(0), std::size_t(1048576), std::size_t(1048577)}) {
        SCOPED_TRACE(size);
        WriteFileBytes(m_base, std::string(size, 'x'));
        RefCntPtr<SimpleLogger> logger = Open(m_base);
        logger->QueueMessage(std::string("new line"));
        Drain(*logger);
        const std::string content = ReadFileBytes(m_base), kept(size <= 1048576 ? size : 0, 'x');
        EXPECT_EQ(kept, content.substr(0, kept.size()));
        WriteFileBytes(m_dir.File("tail"), content.substr(kept.size()));
        EXPECT_EQ(Strings{"new line"}, Payloads(m_dir.File("tail")));
    }
}

// flock conflicts between two open files of one process as between two processes.
TEST_F(LogTest, TakenNamesFallBackToNinePlacesThenOpeningFailsWithThePath)
{
    std::vector<RefCntPtr<SimpleLogger>> loggers;
    for (int i = 0; i < 10; ++i) {
        loggers.push_back(Open(m_base));
        loggers.back()->QueueMessage("logger " + std::to_string(i));
        Drain(*loggers.back());
        EXPECT_EQ(Strings{"logger " + std::to_string(i)}, Payloads(i ? m_dir.File("OrvaneSDKServer_" + std::to_string(i) + ".log") : m_base));
    }
    for (const auto& [path, shown] : {std::make_pair(Wide(m_base), m_base),
                                      std::make_pair(Wide(m_dir.File("missing")) + L"/\u00e9t\u00e9.log", m_dir.File("missing") + "/\xC3\xA9t\xC3\xA9.log")}) {
        try {
            SimpleLogger logger(path, 0);
            ADD_FAILURE() << "opened " << shown;
        } catch (const QRX_InvalidArgument& e) {
            EXPECT_EQ(40463, e.GetStatus());
            EXPECT_EQ("SimpleLogger constructor failed. Couldn't open: '" + shown + "'", std::string(e.what()));
        }
    }
    loggers[0].reset();  // releasing a logger releases its name
    RefCntPtr<SimpleLogger> again = Open(m_base);
    again->QueueMessage(std::string("again"));
    Drain(*again);
    EXPECT_EQ((Strings{"logger 0", "again"}), Payloads(m_base));
}

TEST_F(LogTest, MessagesQueuedAfterStopNeverAppear)
{
    RefCntPtr<SimpleLogger> logger = Open(m_base);
    RefCntPtr<Thread> writer(new Thread(RefCntPtr<Runnable>(logger)));
    writer->Start();
    logger->QueueMessage(std::string("before the stop"));
    logger->QueueStop();
    logger->QueueMessage(std::string("after the stop"));
    writer->Join();
    logger.reset();
    EXPECT_EQ(Strings{"before the stop"}, Payloads(m_base));
}

TEST_F(LogTest, RotationMovesToANewTimeStampedFile)
{
    const auto start = std::chrono::steady_clock::now();
    RefCntPtr<SimpleLogger> logger = Open(m_dir.File("r.log"), 1);
    logger->QueueMessage(std::string("in the first file"));
    Drain(*logger);
    std::this_thread::sleep_until(start + std::chrono::milliseconds(1100));  // the interval has to pass on the clock
    logger->QueueMessage(std::string("in the second file"));
    Drain(*logger);
    Strings names;
    for (const auto& entry : std::filesystem::directory_iterator(m_dir.Path())) {
        names.push_back(entry.path().filename().string());
        EXPECT_TRUE(std::regex_match(names.back(), std::regex(R"(r_\d+_\d+_\d+_\d+_\d+_\d+(_\d+)?\.log)"))) << names.back();
    }
    std::sort(names.begin(), names.end());  // time stamps sort in time order
    ASSERT_EQ(2u, names.size());
    EXPECT_EQ((Strings{"in the first file", "logfile_rotation: closing this log"}), Payloads(m_dir.File(names[0])));
    EXPECT_EQ((Strings{"logfile_rotation: opening new log", "in the second file"}), Payloads(m_dir.File(names[1])));
}

// Start-up logs the pid, then starts libcurl; Cleanup stops libcurl, then writes every queued line
// before it returns. A second Initialize does nothing; a restart while the first logger still holds
// the file goes to the next name.
TEST_F(LogTest, StartupAndShutdownLines)
{
    ServerAPI::Cleanup();  // before any start: nothing at all
    EXPECT_TRUE(std::filesystem::is_empty(m_dir.Path()));
    ServerAPI::Initialize();
    ServerAPI::Initialize();
    Logger::Get()->QueueMessage(std::wstring(L"first run"));
    ServerAPI::Cleanup();
    ServerAPI::Cleanup();
    Logger::Get()->QueueMessage(std::string("after cleanup"));  // the writer has ended
    EXPECT_EQ(RunLines(getpid(), {"first run"}), Payloads(m_base));
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
                std::string text = "thread " + std::to_string(t) + " line " + std::to_string(i);
                text += i % 4 == 3 ? "\n" + text + " more" : "";
                i % 2 ? Logger::Get()->QueueMessage(text) : Logger::Get()->QueueMessage(Wide(text));
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
        ASSERT_TRUE(std::regex_search(lines[i], header, kHeader) && std::sscanf(header.suffix().str().c_str(), "thread %d", &t) == 1 &&
                    t >= 0 && t < kThreads) << lines[i];
        const std::string text = "thread " + std::to_string(t) + " line " + std::to_string(next[t]);
        ASSERT_EQ(header.str() + text, lines[i]);
        if (next[t]++ % 4 == 3) {
            ASSERT_EQ(header.str() + text + " more", lines[++i]);
        }
    }
    EXPECT_EQ(std::vector<int>(kThreads, kMessages), next);
}

TEST_F(LogTest, LogDirectoryFallsBackToTheCurrentDirectory)
{
    TempDirectory cwd("orv-cwd");
    WriteFileBytes(m_dir.File("plain-file"), "not a directory");
    const auto previous = std::filesystem::current_path();
    std::filesystem::current_path(cwd.Path());
    const std::pair<std::optional<std::string>, std::string> cases[] = {{std::nullopt, cwd.Path()}, {"", cwd.Path()},
        {m_dir.File("missing"), cwd.Path()}, {m_dir.File("plain-file"), cwd.Path()}, {m_dir.Path(), m_dir.Path()}, {m_dir.Path() + "/", m_dir.Path()}};
    for (const auto& [value, directory] : cases) {
        SCOPED_TRACE(value.value_or("unset"));
        value ? setenv("ORV_SDK_LOGDIR", value->c_str(), 1) : unsetenv("ORV_SDK_LOGDIR");
        ServerAPI::Initialize();
        ServerAPI::Cleanup();
        Logger::Init(RefCntPtr<Logger>());  // releases the file
        const std::string file = directory + "/OrvaneSDKServer.log";
        EXPECT_EQ(RunLines(getpid(), {}), Payloads(file));
        std::filesystem::remove(file);
    }
    std::filesystem::current_path(previous);
}

// Whoever holds the base name (a shell with flock, a host later killed) sends the next process to
// the first numbered name until it is gone.
TEST_F(LogTest, LockHolderInAnotherProcessSendsTheLogToTheNextName)
{
    ChildProcess shell({"/bin/sh", "-c", "exec 9>>\"$0\" && flock -x 9 && exec sleep 60", m_base}, m_dir.File("shell.out"));
    ASSERT_TRUE(WaitUntil([&] { return LockedElsewhere(m_base); }));
    const long beside = RunChild({"log", "beside the shell"});
    EXPECT_EQ(RunLines(beside, {"beside the shell"}), Payloads(m_sibling));
    shell.Stop();
    ChildProcess host({ORV_LOG_CHILD, "hold", "holding"}, m_dir.File("host.out"));
    ASSERT_TRUE(WaitUntil([&] { return ReadFileBytes(m_base).find("holding") != std::string::npos; }));
    kill(host.Pid(), SIGKILL);
    ASSERT_TRUE(WaitUntil([&] { return !host.Running(); }));
    const long after = RunChild({"log", "after the host"});
    Strings expected{PidLine(host.Pid()), "Curl global initialization", "holding"};
    for (const std::string& line : RunLines(after, {"after the host"}))
        expected.push_back(line);
    EXPECT_EQ(expected, Payloads(m_base));  // the killed host's lines stay; the next process appends
}

// A host that returns from main without Cleanup still writes its last message, and the program it
// started holds neither the log nor its lock.
TEST_F(LogTest, HostEndingWithoutCleanupWritesItsLogAndItsProgramKeepsNoLock)
{
    ASSERT_EQ(0, prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0));  // the host's orphan becomes ours to reap
    const long host = RunChild({"exit", "left without cleanup", m_dir.File("pid"), "sleep", "60"});
    const pid_t program = static_cast<pid_t>(std::atol(ReadFileBytes(m_dir.File("pid")).c_str()));
    ASSERT_GT(program, 0);
    std::shared_ptr<void> reap(nullptr, [program](void*) { kill(program, SIGKILL), waitpid(program, nullptr, 0); });
    ASSERT_TRUE(WaitUntil([&] { return ReadFileBytes("/proc/" + std::to_string(program) + "/cmdline").rfind("sleep", 0) == 0; }));
    for (const auto& entry : std::filesystem::directory_iterator("/proc/" + std::to_string(program) + "/fd")) {
        std::error_code error;
        EXPECT_EQ(std::string::npos, std::filesystem::read_symlink(entry.path(), error).string().find("OrvaneSDKServer")) << entry.path();
    }
    EXPECT_FALSE(LockedElsewhere(m_base));
    EXPECT_EQ((Strings{PidLine(host), "Curl global initialization", "left without cleanup"}), Payloads(m_base));
}
