// What a caller pays to log, and how long the writer needs to drain, against
// the plain alternative: the caller formatting the same header and line and
// writing it with fprintf + fflush itself. Rounds alternate between the two;
// medians and their ratios are printed.
//
// Usage: logging_bench [rounds]   (default 7; files go to a fresh directory
// under $TMPDIR or /tmp, removed afterwards)
#include "logging/SimpleLogger.h"
#include "sys/Thread.h"
#include "sys/datetime.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

using namespace OrvaneInternal;

namespace {

constexpr int kLines = 100000;  // per measurement, whatever the thread count
using Clock = std::chrono::steady_clock;

std::string LineText(int thread, int i)
{
    return "bench thread " + std::to_string(thread) + " line " + std::to_string(i) +
           ": Sending request to https://server.example/api/2.0/sites/site-id/projects";
}

double Seconds(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// Runs `body(thread, first, count)` on `threads` threads, each with its share
// of kLines, and returns the wall time until all have finished.
double OnThreads(int threads, const std::function<void(int, int)>& body)
{
    std::vector<std::thread> workers;
    const Clock::time_point start = Clock::now();
    for (int t = 0; t < threads; ++t)
        workers.emplace_back(body, t, kLines / threads);
    for (std::thread& worker : workers)
        worker.join();
    return Seconds(start);
}

struct Directory {
    Directory()
    {
        const char* base = std::getenv("TMPDIR");
        std::string pattern = std::string(base && *base ? base : "/tmp") + "/orv-log-bench-XXXXXX";
        if (!::mkdtemp(&pattern[0])) {
            std::perror("mkdtemp");
            std::exit(1);
        }
        path = pattern;
    }
    ~Directory() { std::filesystem::remove_all(path); }
    std::string path;
};

// Caller-side cost. In the library the writer runs meanwhile and competes for
// the cores; without it the figure is the formatting and queueing alone.
double LoggerQueue(int threads, bool writerRunning = true)
{
    Directory dir;
    const std::string file = dir.path + "/bench.log";
    RefCntPtr<SimpleLogger> logger(new SimpleLogger(std::wstring(file.begin(), file.end()), 0));
    RefCntPtr<Thread> writer(new Thread(RefCntPtr<Runnable>(logger)));
    if (writerRunning)
        writer->Start();
    const double seconds = OnThreads(threads, [&](int t, int count) {
        for (int i = 0; i < count; ++i)
            logger->QueueMessage(LineText(t, i));
    });
    logger->QueueStop();
    if (writerRunning)
        writer->Join();
    else
        logger->Run();
    return seconds;
}

double PlainWrite(int threads)
{
    Directory dir;
    FILE* out = std::fopen((dir.path + "/bench.log").c_str(), "a");
    if (!out) {
        std::perror("fopen");
        std::exit(1);
    }
    const double seconds = OnThreads(threads, [&](int t, int count) {
        const unsigned long id = static_cast<unsigned long>(::gettid());
        for (int i = 0; i < count; ++i) {
            const std::string header = SimpleLogger::FormatHeader(datetime::now(), id);
            std::fprintf(out, "%s%s\n", header.c_str(), LineText(t, i).c_str());
            std::fflush(out);
        }
    });
    std::fclose(out);
    return seconds;
}

// Writer-side cost: kLines already queued, then the writer started and
// stopped, as Cleanup does.
double LoggerDrain()
{
    Directory dir;
    const std::string file = dir.path + "/bench.log";
    RefCntPtr<SimpleLogger> logger(new SimpleLogger(std::wstring(file.begin(), file.end()), 0));
    for (int i = 0; i < kLines; ++i)
        logger->QueueMessage(LineText(0, i));
    const Clock::time_point start = Clock::now();
    RefCntPtr<Thread> writer(new Thread(RefCntPtr<Runnable>(logger)));
    writer->Start();
    logger->QueueStop();
    writer->Join();
    return Seconds(start);
}

double Median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const std::size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

struct Pair {
    const char* name;
    std::function<double()> logger;
    std::function<double()> plain;
    std::vector<double> loggerTimes;
    std::vector<double> plainTimes;
};

}  // namespace

int main(int argc, char** argv)
{
    const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 7;
    std::vector<Pair> pairs;
    pairs.push_back({"QueueMessage, 1 thread", [] { return LoggerQueue(1); }, [] { return PlainWrite(1); }, {}, {}});
    pairs.push_back({"QueueMessage, 8 threads", [] { return LoggerQueue(8); }, [] { return PlainWrite(8); }, {}, {}});
    pairs.push_back(
        {"QueueMessage, no writer", [] { return LoggerQueue(1, false); }, [] { return PlainWrite(1); }, {}, {}});
    pairs.push_back({"drain queued lines", [] { return LoggerDrain(); }, [] { return PlainWrite(1); }, {}, {}});

    for (int round = 0; round < rounds; ++round) {
        for (Pair& pair : pairs) {
            // Alternate which side goes first, so neither always meets a warm cache.
            if (round % 2) {
                pair.plainTimes.push_back(pair.plain());
                pair.loggerTimes.push_back(pair.logger());
            } else {
                pair.loggerTimes.push_back(pair.logger());
                pair.plainTimes.push_back(pair.plain());
            }
        }
    }

    std::printf("%d lines per measurement, %d rounds, medians; hardware threads: %u\n", kLines, rounds,
                std::thread::hardware_concurrency());
    std::printf("%-26s %12s %12s %14s %14s %8s\n", "measurement", "logger ms", "fprintf ms", "logger ns/line",
                "fprintf ns/line", "ratio");
    for (const Pair& pair : pairs) {
        const double logger = Median(pair.loggerTimes);
        const double plain = Median(pair.plainTimes);
        std::printf("%-26s %12.1f %12.1f %14.0f %14.0f %8.3f\n", pair.name, logger * 1e3, plain * 1e3,
                    logger * 1e9 / kLines, plain * 1e9 / kLines, logger / plain);
    }
    std::printf("ratio = logger / (format + fprintf + fflush on the caller's thread); below 1 the logger is cheaper\n");
    return 0;
}
