#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace OrvaneTest {

// A helper program run for the length of a test: started with fork/exec, its stdout and
// stderr going to a file, stopped (SIGTERM, then SIGKILL) and reaped on destruction. The
// child also receives SIGTERM when the thread that started it ends, so a crashed test leaves
// nothing behind: create it on the thread that outlives it (the test's own thread).
class ChildProcess {
public:
    // argv[0] is the program: run as given when it contains a '/', looked up on PATH otherwise.
    // Throws std::runtime_error when the process cannot be created.
    ChildProcess(const std::vector<std::string>& argv, const std::string& outputFile);
    ~ChildProcess();

    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t Pid() const { return m_pid; }

    // False once the process has ended (it is then reaped and ExitDescription says how).
    bool Running();
    std::string ExitDescription() const;

    // Asks the process to end and waits at most `grace` before killing it; always reaps it.
    void Stop(std::chrono::milliseconds grace = std::chrono::seconds(5)) noexcept;

private:
    pid_t m_pid = -1;
    bool m_reaped = false;
    int m_status = 0;
};

// A fresh directory under $TMPDIR (or /tmp), removed with everything in it on destruction
// unless ORV_KEEP_TEST_FILES is set in the environment (then its path is printed instead).
class TempDirectory {
public:
    explicit TempDirectory(const std::string& prefix);
    ~TempDirectory();

    TempDirectory(const TempDirectory&) = delete;
    TempDirectory& operator=(const TempDirectory&) = delete;

    const std::string& Path() const { return m_path; }
    std::string File(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

// Whole file as bytes; empty when it cannot be read.
std::string ReadFileBytes(const std::string& path);
// Writes the file whole; throws std::runtime_error on failure.
void WriteFileBytes(const std::string& path, const std::string& bytes);
// The lines of `text` without their "\n" or "\r\n"; no empty last line for a final newline.
std::vector<std::string> SplitLines(const std::string& text);

}  // namespace OrvaneTest
