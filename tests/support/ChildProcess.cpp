#include "tests/support/ChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <thread>

namespace OrvaneTest {

namespace {

std::string ErrnoText(const std::string& what)
{
    return what + ": " + std::strerror(errno);
}

// Runs in the forked child: only async-signal-safe calls until exec.
[[noreturn]] void ExecChild(char* const* argv, int outputFd, pid_t parent)
{
    if (prctl(PR_SET_PDEATHSIG, SIGTERM) != 0 || getppid() != parent) {
        _exit(126);
    }
    int devNull = open("/dev/null", O_RDONLY);
    if (devNull < 0 || dup2(devNull, 0) < 0 || dup2(outputFd, 1) < 0 || dup2(outputFd, 2) < 0) {
        _exit(126);
    }
    // Sockets and files of the test process must not stay open in the helper.
    if (close_range(3, ~0U, 0) != 0) {
        for (int fd = 3; fd < 4096; ++fd) {
            close(fd);
        }
    }
    // The helpers are stopped with SIGTERM: make sure it is not inherited as ignored or blocked.
    signal(SIGTERM, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    if (std::strchr(argv[0], '/') != nullptr) {
        execv(argv[0], argv);
    } else {
        execvp(argv[0], argv);
    }
    static const char message[] = "ChildProcess: exec failed\n";
    ssize_t ignored = write(2, message, sizeof(message) - 1);
    (void)ignored;
    _exit(127);
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& argv, const std::string& outputFile)
{
    if (argv.empty()) {
        throw std::invalid_argument("ChildProcess: no program given");
    }
    std::vector<std::string> args = argv;
    std::vector<char*> pointers;
    for (auto& arg : args) {
        pointers.push_back(arg.data());
    }
    pointers.push_back(nullptr);

    int outputFd = open(outputFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (outputFd < 0) {
        throw std::runtime_error(ErrnoText("ChildProcess: cannot create " + outputFile));
    }
    pid_t parent = getpid();
    m_pid = fork();
    if (m_pid == 0) {
        ExecChild(pointers.data(), outputFd, parent);
    }
    int forkErrno = errno;
    close(outputFd);
    if (m_pid < 0) {
        errno = forkErrno;
        throw std::runtime_error(ErrnoText("ChildProcess: fork failed for " + argv[0]));
    }
}

ChildProcess::~ChildProcess()
{
    Stop();
}

bool ChildProcess::Running()
{
    if (m_reaped || m_pid <= 0) {
        return false;
    }
    pid_t result = waitpid(m_pid, &m_status, WNOHANG);
    if (result == m_pid || (result < 0 && errno == ECHILD)) {
        m_reaped = true;
        return false;
    }
    return true;
}

std::string ChildProcess::ExitDescription() const
{
    if (!m_reaped) {
        return "still running";
    }
    if (WIFEXITED(m_status)) {
        return "exited with status " + std::to_string(WEXITSTATUS(m_status));
    }
    if (WIFSIGNALED(m_status)) {
        return "killed by signal " + std::to_string(WTERMSIG(m_status));
    }
    return "ended (wait status " + std::to_string(m_status) + ")";
}

void ChildProcess::Stop(std::chrono::milliseconds grace) noexcept
{
    if (!Running()) {
        return;
    }
    kill(m_pid, SIGTERM);
    const auto step = std::chrono::milliseconds(10);
    for (auto waited = std::chrono::milliseconds(0); waited < grace; waited += step) {
        if (!Running()) {
            return;
        }
        std::this_thread::sleep_for(step);
    }
    kill(m_pid, SIGKILL);
    while (waitpid(m_pid, &m_status, 0) < 0 && errno == EINTR) {
    }
    m_reaped = true;
}

TempDirectory::TempDirectory(const std::string& prefix)
{
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/" + prefix + "-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error(ErrnoText("TempDirectory: mkdtemp " + pattern));
    }
    m_path = pattern;
}

TempDirectory::~TempDirectory()
{
    if (std::getenv("ORV_KEEP_TEST_FILES") != nullptr) {
        std::fprintf(stderr, "kept test files in %s\n", m_path.c_str());
        return;
    }
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

std::string ReadFileBytes(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::vector<std::string> SplitLines(const std::string& text)
{
    std::vector<std::string> lines;
    for (std::size_t start = 0, end = 0; start < text.size(); start = end + 1) {
        end = std::min(text.find('\n', start), text.size());
        lines.push_back(text.substr(start, end - start));
        if (!lines.back().empty() && lines.back().back() == '\r') {
            lines.back().pop_back();
        }
    }
    return lines;
}

void WriteFileBytes(const std::string& path, const std::string& bytes)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    out.close();
    if (!out) {
        throw std::runtime_error("cannot write " + path);
    }
}

}  // namespace OrvaneTest
