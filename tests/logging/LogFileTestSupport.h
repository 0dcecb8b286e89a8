// Helpers for tests that read real log files and start real processes: a
// temporary directory, scoped working directory and environment, line
// splitting, and a child process that is always reaped.
#pragma once

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <regex.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace LogFileTest {

// A fresh directory under $TMPDIR (or /tmp), removed with its contents.
class TempDir {
public:
    TempDir()
    {
        const char* base = std::getenv("TMPDIR");
        std::string pattern = std::string(base && *base ? base : "/tmp") + "/orv-log-XXXXXX";
        if (!::mkdtemp(&pattern[0]))
            throw std::runtime_error(std::string("mkdtemp failed: ") + std::strerror(errno));  // fails the test
        m_path = pattern;
    }
    ~TempDir()
    {
        std::error_code ignored;
        if (!m_path.empty())
            std::filesystem::remove_all(m_path, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& Path() const { return m_path; }
    std::string File(const std::string& name) const { return m_path + "/" + name; }
    std::wstring WideFile(const std::string& name) const
    {
        const std::string path = File(name);
        return std::wstring(path.begin(), path.end());  // the temp paths are ASCII
    }

private:
    std::string m_path;
};

// Changes the working directory for its lifetime.
class ScopedCwd {
public:
    explicit ScopedCwd(const std::string& directory) : m_previous(std::filesystem::current_path())
    {
        std::filesystem::current_path(directory);
    }
    ~ScopedCwd()
    {
        std::error_code ignored;
        std::filesystem::current_path(m_previous, ignored);
    }
    ScopedCwd(const ScopedCwd&) = delete;
    ScopedCwd& operator=(const ScopedCwd&) = delete;

private:
    std::filesystem::path m_previous;
};

// Sets (or, given nullopt, unsets) one environment variable for its lifetime.
class ScopedEnv {
public:
    ScopedEnv(const char* name, const std::optional<std::string>& value) : m_name(name)
    {
        if (const char* old = std::getenv(name))
            m_previous = old;
        Apply(value);
    }
    ~ScopedEnv() { Apply(m_previous); }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    void Apply(const std::optional<std::string>& value)
    {
        if (value)
            ::setenv(m_name.c_str(), value->c_str(), 1);
        else
            ::unsetenv(m_name.c_str());
    }

    std::string m_name;
    std::optional<std::string> m_previous;
};

inline std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void WriteFile(const std::string& path, const std::string& content)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

// Lines of a log file. A last line without its newline is kept, so that a
// torn write shows up as a line that fails the caller's checks.
inline std::vector<std::string> Lines(const std::string& content)
{
    std::vector<std::string> lines;
    std::size_t start = 0;
    while (start < content.size()) {
        const std::size_t newline = content.find('\n', start);
        if (newline == std::string::npos) {
            lines.push_back(content.substr(start));
            break;
        }
        lines.push_back(content.substr(start, newline - start));
        start = newline + 1;
    }
    return lines;
}

inline std::vector<std::string> FileLines(const std::string& path) { return Lines(ReadFile(path)); }

// A POSIX extended regular expression. (std::regex is avoided: GCC 12 reports
// false maybe-uninitialized warnings inside it in sanitizer builds.)
class Regex {
public:
    struct Match {
        std::vector<std::string> groups;  // [0] is the whole match
        std::string suffix;               // the text after the match
    };

    explicit Regex(const char* pattern) : m_compiled(::regcomp(&m_regex, pattern, REG_EXTENDED) == 0)
    {
        if (!m_compiled)
            ADD_FAILURE() << "bad pattern " << pattern;
    }
    ~Regex()
    {
        if (m_compiled)
            ::regfree(&m_regex);
    }
    Regex(const Regex&) = delete;
    Regex& operator=(const Regex&) = delete;

    std::optional<Match> Search(const std::string& text) const
    {
        regmatch_t found[16];
        if (!m_compiled || text.find('\0') != std::string::npos ||
            ::regexec(&m_regex, text.c_str(), 16, found, 0) != 0)
            return std::nullopt;
        Match match;
        for (std::size_t i = 0; i <= m_regex.re_nsub && i < 16; ++i) {
            const regmatch_t& group = found[i];
            match.groups.push_back(group.rm_so < 0 ? std::string()
                                                   : text.substr(group.rm_so, group.rm_eo - group.rm_so));
        }
        match.suffix = text.substr(found[0].rm_eo);
        return match;
    }
    bool FullMatch(const std::string& text) const
    {
        const std::optional<Match> match = Search(text);
        return match && match->groups[0].size() == text.size();
    }

private:
    regex_t m_regex;
    bool m_compiled;
};

// "2016-05-11 22:03:09.042 (140213): " at the start of a line; groups 1 to 8
// are year, month, day, hour, minute, second, millisecond and thread.
inline const Regex& HeaderPattern()
{
    static const Regex pattern(
        "^([0-9]{4,})-([0-9]{2})-([0-9]{2}) ([0-9]{2}):([0-9]{2}):([0-9]{2})[.]([0-9]{3}) [(]([0-9]{4,})[)]: ");
    return pattern;
}

// The header of a line, or "" when the line does not start with one. Cheap
// enough for tens of thousands of lines; HeaderPattern is for exact checks.
inline std::string HeaderOf(const std::string& line)
{
    const std::size_t end = line.find("): ");
    if (end == std::string::npos || line.find(" (") > end)
        return std::string();
    return line.substr(0, end + 3);
}

inline std::string PayloadOf(const std::string& line)
{
    return line.substr(HeaderOf(line).size());
}

inline std::vector<std::string> Payloads(const std::vector<std::string>& lines)
{
    std::vector<std::string> payloads;
    for (const std::string& line : lines)
        payloads.push_back(PayloadOf(line));
    return payloads;
}

inline std::string PidLine(long pid) { return "pid=" + std::to_string(pid) + "----------------------------------"; }

struct ChildResult {
    pid_t pid = -1;
    bool exited = false;  // exited normally within the time allowed
    int exitCode = -1;
    std::string output;  // stdout and stderr together
};

// Runs `path` with `args` in a new process that inherits the environment and
// the working directory, collects its output and reaps it. A child still
// running after `timeoutMs` is killed (and reported as not exited).
inline ChildResult RunChild(const std::string& path, const std::vector<std::string>& args, int timeoutMs = 20000)
{
    ChildResult result;
    std::vector<std::string> all{path};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& arg : all)
        argv.push_back(&arg[0]);
    argv.push_back(nullptr);

    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "pipe2 failed: " << std::strerror(errno);
        return result;
    }
    result.pid = ::fork();
    if (result.pid < 0) {
        ADD_FAILURE() << "fork failed: " << std::strerror(errno);
        ::close(fds[0]);
        ::close(fds[1]);
        return result;
    }
    if (result.pid == 0) {
        ::dup2(fds[1], 1);
        ::dup2(fds[1], 2);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    ::close(fds[1]);

    bool timedOut = false;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        using std::chrono::milliseconds;
        const auto left = std::chrono::duration_cast<milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            timedOut = true;
            break;
        }
        pollfd pfd{fds[0], POLLIN, 0};
        const int ready = ::poll(&pfd, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0) {
            timedOut = ready == 0;
            break;
        }
        char buffer[4096];
        const ssize_t got = ::read(fds[0], buffer, sizeof buffer);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            break;  // every copy of the write end is closed: the child has gone
        result.output.append(buffer, static_cast<std::size_t>(got));
    }
    ::close(fds[0]);
    if (timedOut)
        ::kill(result.pid, SIGKILL);
    int status = 0;
    while (::waitpid(result.pid, &status, 0) < 0 && errno == EINTR) {
    }
    result.exited = !timedOut && WIFEXITED(status);
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

}  // namespace LogFileTest
