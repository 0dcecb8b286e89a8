// For tests that read real log files and start real processes; scratch
// directories and child processes come from tests/support.
#pragma once

#include "tests/support/ChildProcess.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace LogFileTest {

using OrvaneTest::ReadFileBytes;
using OrvaneTest::TempDirectory;

inline std::wstring Wide(const std::string& ascii) { return std::wstring(ascii.begin(), ascii.end()); }

// Sets, or with nullopt unsets, an environment variable (each test case runs in a process of its own).
inline void SetEnv(const char* name, const std::optional<std::string>& value)
{
    value ? ::setenv(name, value->c_str(), 1) : ::unsetenv(name);
}

// Lines of a log; a last line without its newline is kept, so a torn write shows.
inline std::vector<std::string> Lines(const std::string& content)
{
    std::vector<std::string> lines;
    for (std::size_t start = 0; start < content.size();) {
        const std::size_t end = std::min(content.find('\n', start), content.size());
        lines.push_back(content.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}
inline std::vector<std::string> FileLines(const std::string& path) { return Lines(ReadFileBytes(path)); }

// The "date time.ms (thread): " header of a line, or "" when there is none.
inline std::string HeaderOf(const std::string& line)
{
    const std::size_t end = line.find("): ");
    return end == std::string::npos || line.find(" (") > end ? std::string() : line.substr(0, end + 3);
}
inline std::string PayloadOf(const std::string& line) { return line.substr(HeaderOf(line).size()); }
inline std::vector<std::string> Payloads(const std::vector<std::string>& lines)
{
    std::vector<std::string> payloads;
    for (const std::string& line : lines)
        payloads.push_back(PayloadOf(line));
    return payloads;
}
inline std::vector<std::string> FilePayloads(const std::string& path) { return Payloads(FileLines(path)); }

// Exactly "dddd-dd-dd dd:dd:dd.ddd (" then a thread id of at least four digits and "): ".
inline bool IsHeader(const std::string& header)
{
    const std::string shape = "dddd-dd-dd dd:dd:dd.ddd (";
    if (header.size() < shape.size() + 7 || header.compare(header.size() - 3, 3, "): ") != 0)
        return false;
    for (std::size_t i = 0; i < shape.size(); ++i)
        if (shape[i] == 'd' ? !std::isdigit(static_cast<unsigned char>(header[i])) : header[i] != shape[i])
            return false;
    const std::string id = header.substr(shape.size(), header.size() - shape.size() - 3);
    return id.find_first_not_of("0123456789") == std::string::npos;
}
inline unsigned long ThreadOf(const std::string& line) { return std::stoul(HeaderOf(line).substr(25)); }

inline std::string PidLine(long pid) { return "pid=" + std::to_string(pid) + "----------------------------------"; }

struct ChildRun {
    long pid;
    std::string status;  // "exited with status 0" when all went well
    std::string output;
};

// Runs the helper program orv_log_child with `args` to its end (killed after 20 s).
inline ChildRun RunChild(const std::vector<std::string>& args)
{
    TempDirectory scratch("orv-log-child");
    std::vector<std::string> argv{ORV_LOG_CHILD};
    argv.insert(argv.end(), args.begin(), args.end());
    OrvaneTest::ChildProcess child(argv, scratch.File("output"));
    for (int step = 0; step < 2000 && child.Running(); ++step)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    child.Stop();
    return {child.Pid(), child.ExitDescription(), ReadFileBytes(scratch.File("output"))};
}

}  // namespace LogFileTest
