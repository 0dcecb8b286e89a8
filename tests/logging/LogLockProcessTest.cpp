// The log file's lock between real processes: whoever holds the base name, a
// shell with flock or a host killed with SIGKILL, sends the next process to the
// first numbered name until it is gone; a program a host starts never keeps
// the log or its lock.
#include "logging/LogFileTestSupport.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

using namespace LogFileTest;
using Strings = std::vector<std::string>;

namespace {

// Polls `done` every 10 ms for at most 10 s.
template <class Done>
bool WaitFor(Done done)
{
    for (int step = 0; step < 1000 && !done(); ++step)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return done();
}

// True while another process holds an exclusive lock on `path`.
bool LockedElsewhere(const std::string& path)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    const bool held = ::flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    ::close(fd);
    return held;
}

void Kill(OrvaneTest::ChildProcess& process)
{
    ::kill(process.Pid(), SIGKILL);
    EXPECT_TRUE(WaitFor([&] { return !process.Running(); })) << "pid " << process.Pid() << " did not die";
}

// One run of the library in a process of its own that logs `message` and stops.
long LogFromAnotherProcess(const std::string& message)
{
    const ChildRun child = RunChild({"log", message});
    EXPECT_EQ("exited with status 0", child.status) << child.output;
    return child.pid;
}

// The lines a process that ran "log MESSAGE" from start to end wrote.
Strings RunLines(long pid, const std::string& message)
{
    return {PidLine(pid), "Curl global initialization", message, "Curl global cleanup"};
}

// The first three lines, and those after them.
Strings Head(const Strings& lines)
{
    return Strings(lines.begin(), lines.begin() + static_cast<long>(std::min<std::size_t>(3, lines.size())));
}
Strings Tail(const Strings& lines)
{
    return Strings(lines.begin() + static_cast<long>(std::min<std::size_t>(3, lines.size())), lines.end());
}

class LogLockProcess : public ::testing::Test {
protected:
    TempDirectory m_dir{"orv-log-lock"};
    int m_logDir = ::setenv("ORV_SDK_LOGDIR", m_dir.Path().c_str(), 1);
    const std::string m_base = m_dir.File("OrvaneSDKServer.log");
    const std::string m_sibling = m_dir.File("OrvaneSDKServer_1.log");
};

}  // namespace

TEST_F(LogLockProcess, ShellHoldingTheLockSendsTheLogToTheFirstNumberedNameUntilKilled)
{
    // The shell takes the lock on its own descriptor and becomes sleep, so the
    // one process that holds it is the one killed below.
    TempDirectory scratch("orv-holder");
    OrvaneTest::ChildProcess holder({"/bin/sh", "-c", "exec 9>>\"$0\" && flock -x 9 && exec sleep 60", m_base},
                                    scratch.File("out"));
    ASSERT_TRUE(WaitFor([&] { return LockedElsewhere(m_base); })) << ReadFileBytes(scratch.File("out"));

    const long beside = LogFromAnotherProcess("beside the holder");
    EXPECT_EQ(RunLines(beside, "beside the holder"), FilePayloads(m_sibling));
    EXPECT_EQ("", ReadFileBytes(m_base));

    Kill(holder);
    EXPECT_FALSE(LockedElsewhere(m_base));
    const long after = LogFromAnotherProcess("after the holder");
    EXPECT_EQ(RunLines(after, "after the holder"), FilePayloads(m_base));
    EXPECT_EQ(RunLines(beside, "beside the holder"), FilePayloads(m_sibling));
}

TEST_F(LogLockProcess, HostKilledWithSigkillLeavesTheBaseNameToTheNextProcess)
{
    TempDirectory scratch("orv-host");
    OrvaneTest::ChildProcess host({ORV_LOG_CHILD, "hold", "holding", scratch.File("ready")}, scratch.File("out"));
    ASSERT_TRUE(WaitFor([&] { return !ReadFileBytes(scratch.File("ready")).empty(); }))
        << ReadFileBytes(scratch.File("out"));
    ASSERT_TRUE(LockedElsewhere(m_base));

    const long beside = LogFromAnotherProcess("beside the host");
    EXPECT_EQ(RunLines(beside, "beside the host"), FilePayloads(m_sibling));

    Kill(host);
    const long after = LogFromAnotherProcess("after the host");
    // The killed host's lines stay; the next process appends its own run.
    const Strings lines = FilePayloads(m_base);
    EXPECT_EQ((Strings{PidLine(host.Pid()), "Curl global initialization", "holding"}), Head(lines));
    EXPECT_EQ(RunLines(after, "after the host"), Tail(lines));
    EXPECT_EQ(RunLines(beside, "beside the host"), FilePayloads(m_sibling));
}

// The host returns from main without Cleanup, leaving the program it started
// with fork and exec running: its last message is still written, and the
// program holds neither the log nor its lock.
TEST_F(LogLockProcess, HostEndingWithoutCleanupWritesItsLogAndItsProgramKeepsNoLock)
{
    // Orphans of the host are adopted by this process, so that the test can reap them.
    ASSERT_EQ(0, ::prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0));
    TempDirectory scratch("orv-host");
    const ChildRun host = RunChild({"exit", "left without cleanup", scratch.File("pid"), "sleep", "60"});
    ASSERT_EQ("exited with status 0", host.status) << host.output;
    const pid_t program = static_cast<pid_t>(std::atol(ReadFileBytes(scratch.File("pid")).c_str()));
    ASSERT_GT(program, 0);
    struct Reaper {
        pid_t pid;
        ~Reaper()
        {
            ::kill(pid, SIGKILL);
            while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
            }
        }
    } reaper{program};

    ASSERT_EQ(0, ::kill(program, 0));  // the program lives on
    const std::string fds = "/proc/" + std::to_string(program) + "/fd";
    for (const auto& entry : std::filesystem::directory_iterator(fds)) {
        std::error_code error;
        const std::string target = std::filesystem::read_symlink(entry.path(), error).string();
        EXPECT_NE(0u, target.rfind(m_dir.Path(), 0)) << "the program holds " << target;
    }
    EXPECT_FALSE(LockedElsewhere(m_base));

    const long next = LogFromAnotherProcess("while the program lives");
    const Strings lines = FilePayloads(m_base);
    EXPECT_EQ((Strings{PidLine(host.pid), "Curl global initialization", "left without cleanup"}), Head(lines));
    EXPECT_EQ(RunLines(next, "while the program lives"), Tail(lines));
    EXPECT_FALSE(std::filesystem::exists(m_sibling));
}
