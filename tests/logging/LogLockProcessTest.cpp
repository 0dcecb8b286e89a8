// The log file's lock between real processes: whoever holds the lock on the
// base name, whatever its way of holding it, sends the next process to the
// first numbered name, and the lock goes when its holder goes, however it
// goes; a program that a host starts never takes the lock along.
#include "LogFileTestSupport.h"
#include "tests/support/ChildProcess.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

using namespace LogFileTest;

namespace {

const char kBase[] = "OrvaneSDKServer.log";
const char kFirstSibling[] = "OrvaneSDKServer_1.log";

// Polls `done` every 10 ms for at most 10 s.
template <class Done>
bool WaitFor(Done done)
{
    for (int step = 0; step < 1000; ++step) {
        if (done())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return done();
}

// True while another process holds an exclusive lock on `path`.
bool LockedElsewhere(const std::string& path)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    const bool held = ::flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    ::close(fd);  // also drops the lock if we took it
    return held;
}

// Kills with SIGKILL and reaps; the lock then has no holder but the kernel's
// own clean-up of the dead process.
void Kill(OrvaneTest::ChildProcess& process)
{
    ::kill(process.Pid(), SIGKILL);
    EXPECT_TRUE(WaitFor([&] { return !process.Running(); })) << "pid " << process.Pid() << " did not die";
}

// One run of the library in a process of its own that logs `message` and
// stops; returns the pid it had.
long LogFromAnotherProcess(const std::string& message)
{
    const ChildResult child = RunChild(ORV_LOG_CHILD, {"log", message});
    EXPECT_TRUE(child.exited) << child.output;
    EXPECT_EQ(0, child.exitCode) << child.output;
    return child.pid;
}

// The process `pid` wrote its lines, and `message` among them, as one run.
void ExpectRun(const std::vector<std::string>& payloads, std::size_t at, long pid, const std::string& message)
{
    ASSERT_LT(at, payloads.size());
    EXPECT_EQ(PidLine(pid), payloads[at]);
    bool found = false;
    for (std::size_t i = at; i < payloads.size(); ++i)
        found |= payloads[i] == message;
    EXPECT_TRUE(found) << message;
}

// A process that our process adopted (we are its subreaper): killed and
// reaped when the test ends, passed or not.
class Adopted {
public:
    explicit Adopted(pid_t pid) : m_pid(pid) {}
    ~Adopted()
    {
        if (m_pid <= 0)
            return;
        ::kill(m_pid, SIGKILL);
        while (::waitpid(m_pid, nullptr, 0) < 0 && errno == EINTR) {
        }
    }
    Adopted(const Adopted&) = delete;
    Adopted& operator=(const Adopted&) = delete;

private:
    pid_t m_pid;
};

// The targets of the process's open descriptors.
std::vector<std::string> OpenFiles(pid_t pid)
{
    std::vector<std::string> targets;
    const std::string directory = "/proc/" + std::to_string(pid) + "/fd";
    DIR* dir = ::opendir(directory.c_str());
    if (dir == nullptr)
        return targets;
    while (dirent* entry = ::readdir(dir)) {
        char target[4096];
        const std::string link = directory + "/" + entry->d_name;
        const ssize_t length = ::readlink(link.c_str(), target, sizeof target - 1);
        if (length > 0)
            targets.emplace_back(target, static_cast<std::size_t>(length));
    }
    ::closedir(dir);
    return targets;
}

}  // namespace

TEST(LogLockProcess, ShellHoldingTheLockSendsTheLogToTheFirstNumberedNameUntilKilled)
{
    TempDir dir;
    ScopedEnv logDir("ORV_SDK_LOGDIR", dir.Path());
    const std::string base = dir.File(kBase);
    // The shell takes the lock on its own descriptor and becomes sleep, so
    // the one process that holds it is the one killed below.
    OrvaneTest::ChildProcess holder(
        {"/bin/sh", "-c", "exec 9>>\"$0\" && flock -x 9 && exec sleep 60", base}, dir.File("holder.out"));
    ASSERT_TRUE(WaitFor([&] { return LockedElsewhere(base); })) << ReadFile(dir.File("holder.out"));

    const long beside = LogFromAnotherProcess("beside the holder");
    ExpectRun(Payloads(FileLines(dir.File(kFirstSibling))), 0, beside, "beside the holder");
    EXPECT_EQ("", ReadFile(base));

    Kill(holder);
    EXPECT_FALSE(LockedElsewhere(base));
    const long after = LogFromAnotherProcess("after the holder");
    ExpectRun(Payloads(FileLines(base)), 0, after, "after the holder");
    ExpectRun(Payloads(FileLines(dir.File(kFirstSibling))), 0, beside, "beside the holder");
}

TEST(LogLockProcess, HostKilledWithSigkillLeavesTheBaseNameToTheNextProcess)
{
    TempDir dir;
    ScopedEnv logDir("ORV_SDK_LOGDIR", dir.Path());
    const std::string base = dir.File(kBase);
    OrvaneTest::ChildProcess host({ORV_LOG_HOLDER, "hold", dir.File("ready")}, dir.File("host.out"));
    ASSERT_TRUE(WaitFor([&] { return !ReadFile(dir.File("ready")).empty(); })) << ReadFile(dir.File("host.out"));
    ASSERT_TRUE(LockedElsewhere(base));

    const long beside = LogFromAnotherProcess("beside the host");
    ExpectRun(Payloads(FileLines(dir.File(kFirstSibling))), 0, beside, "beside the host");

    Kill(host);
    const long after = LogFromAnotherProcess("after the host");
    // The killed host's lines stay; the next process appends its own run.
    const std::vector<std::string> lines = Payloads(FileLines(base));
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(PidLine(host.Pid()), lines[0]);
    std::size_t at = 0;
    while (at < lines.size() && lines[at] != PidLine(after))
        ++at;
    ExpectRun(lines, at, after, "after the host");
    EXPECT_EQ(4u, FileLines(dir.File(kFirstSibling)).size());
}

TEST(LogLockProcess, ProgramAHostStartsDoesNotKeepTheLogOrItsLock)
{
    // Orphans of the host are adopted by this process, so that the test can
    // reap them.
    ASSERT_EQ(0, ::prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0));
    TempDir dir;
    ScopedEnv logDir("ORV_SDK_LOGDIR", dir.Path());
    const std::string base = dir.File(kBase);

    const ChildResult host = RunChild(ORV_LOG_HOLDER, {"spawn", dir.File("pid"), "sleep", "60"});
    ASSERT_TRUE(host.exited) << host.output;
    ASSERT_EQ(0, host.exitCode) << host.output;
    const pid_t program = static_cast<pid_t>(std::atol(ReadFile(dir.File("pid")).c_str()));
    ASSERT_GT(program, 0);
    Adopted reaper(program);

    // The host has ended; the program it started lives on.
    ASSERT_EQ(0, ::kill(program, 0));
    for (const std::string& target : OpenFiles(program))
        EXPECT_NE(0u, target.rfind(dir.Path(), 0)) << "the program holds " << target;
    EXPECT_FALSE(LockedElsewhere(base));

    const long next = LogFromAnotherProcess("while the program lives");
    const std::vector<std::string> lines = Payloads(FileLines(base));
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(PidLine(host.pid), lines[0]);
    std::size_t at = 0;
    while (at < lines.size() && lines[at] != PidLine(next))
        ++at;
    ExpectRun(lines, at, next, "while the program lives");
    EXPECT_FALSE(std::filesystem::exists(dir.File(kFirstSibling)));
    EXPECT_EQ(0, ::kill(program, 0));
}
