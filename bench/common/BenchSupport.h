// Helpers shared by the benchmark programs: clocks, /proc figures, UTF-16 for the C API, and one "key=value" line
// per figure on stdout, which bench/common/bench_driver.py collects.
#pragma once

#include <time.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace OrvaneBench {

using Utf16 = std::basic_string<unsigned short>;

// The benchmarks pass ASCII only (URLs, names, temp paths).
inline Utf16 ToUtf16(const std::string& ascii)
{
    return Utf16(ascii.begin(), ascii.end());
}

// CLOCK_MONOTONIC for wall time; CLOCK_PROCESS_CPUTIME_ID counts every thread of the process, the
// library's log writer included; CLOCK_THREAD_CPUTIME_ID the calling thread alone.
inline double Seconds(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// The number after `key` in /proc/self/`file`, -1 when there is none. Used for VmHWM (status), the peak resident
// set of this process image (getrusage's ru_maxrss would carry over the forking parent's peak), and rchar (io), the
// bytes read through system calls, sockets and files alike.
inline long ProcSelf(const char* file, const char* key)
{
    long value = -1;
    if (FILE* in = std::fopen((std::string("/proc/self/") + file).c_str(), "r")) {
        char line[256];
        while (value < 0 && std::fgets(line, sizeof line, in)) {
            if (std::strncmp(line, key, std::strlen(key)) == 0)
                value = std::strtol(line + std::strlen(key), nullptr, 10);
        }
        std::fclose(in);
    }
    return value;
}

// 15 significant digits: byte counts print exactly.
inline void Report(const std::string& key, double value)
{
    std::printf("%s=%.15g\n", key.c_str(), value);
}

[[noreturn]] inline void Fail(const std::string& what)
{
    std::fprintf(stderr, "bench: %s\n", what.c_str());
    std::exit(1);
}

// Positional argument i as a number in [low, high], `fallback` when absent.
inline int Number(int argc, char** argv, int i, int fallback, int low, int high)
{
    const int value = i < argc ? std::atoi(argv[i]) : fallback;
    if (value < low || value > high)
        Fail(std::string(argv[0]) + ": argument " + std::to_string(i) + " out of range");
    return value;
}

} // namespace OrvaneBench
