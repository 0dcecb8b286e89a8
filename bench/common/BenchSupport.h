// Small helpers shared by the benchmark programs: clocks, CPU time, peak
// memory, UTF-16 for the C API, and one "key=value" line per figure on stdout
// so that tools/bench.sh can collect the figures of every run.
#pragma once

#include <time.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace OrvaneBench {

using Utf16 = std::basic_string<unsigned short>;

// The benchmarks pass ASCII only (URLs, names, temp paths).
inline Utf16 ToUtf16(const std::string& ascii)
{
    return Utf16(ascii.begin(), ascii.end());
}

inline double Seconds(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

inline double WallSeconds() { return Seconds(CLOCK_MONOTONIC); }
// Every thread of the process, the library's log writer included.
inline double ProcessCpuSeconds() { return Seconds(CLOCK_PROCESS_CPUTIME_ID); }
inline double ThreadCpuSeconds() { return Seconds(CLOCK_THREAD_CPUTIME_ID); }

// Peak resident set of this process image so far, in KiB: VmHWM, the high
// water mark of the address space made at exec. getrusage's ru_maxrss would
// not do: Linux carries the forking parent's peak over into it.
inline long PeakRssKiB()
{
    long kib = -1;
    if (FILE* status = std::fopen("/proc/self/status", "r")) {
        char line[256];
        while (std::fgets(line, sizeof line, status)) {
            if (std::sscanf(line, "VmHWM: %ld kB", &kib) == 1)
                break;
        }
        std::fclose(status);
    }
    return kib;
}

// Bytes this process has read and written through system calls so far
// (/proc/self/io rchar and wchar; sockets and files alike), -1 when unknown.
inline void IoBytes(long& read, long& written)
{
    read = written = -1;
    if (FILE* io = std::fopen("/proc/self/io", "r")) {
        char key[32];
        long value = 0;
        while (std::fscanf(io, "%31[^:]: %ld\n", key, &value) == 2) {
            if (std::string(key) == "rchar")
                read = value;
            else if (std::string(key) == "wchar")
                written = value;
        }
        std::fclose(io);
    }
}

inline void Report(const char* key, double value) { std::printf("%s=%.9g\n", key, value); }
inline void Report(const char* key, long value) { std::printf("%s=%ld\n", key, value); }

[[noreturn]] inline void Fail(const std::string& what)
{
    std::fprintf(stderr, "bench: %s\n", what.c_str());
    std::exit(1);
}

}  // namespace OrvaneBench
