// The library's file logger beside spdlog's asynchronous logger set up the
// same way: one writer thread, a queue the caller never waits on (sized
// for every line of a measurement), the same header fields (date, time with
// milliseconds, thread id) and the same lines, and a flush after every line.
//
// Three figures per logger, rounds alternating which logger goes first:
//   queue1  caller-side time for 100,000 calls from 1 thread, writer running
//   queue8  the same 100,000 calls spread over 8 threads
//   drain   from the first call (1 thread) until the writer has written and
//           flushed every line and has been joined
//
// Usage: logging_spdlog_bench [rounds]   (default 5; files in a fresh
// directory under $TMPDIR or /tmp, removed afterwards). Prints key=value
// lines, one per figure and round (suffix _i), all in seconds.
#include "bench/common/BenchSupport.h"
#include "logging/SimpleLogger.h"
#include "sys/Thread.h"

#include <spdlog/async.h>
#include <spdlog/async_logger.h>
#include <spdlog/sinks/basic_file_sink.h>

#include <unistd.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace OrvaneBench;
using OrvaneInternal::SimpleLogger;

namespace {

constexpr int kLines = 100000;  // per measurement, whatever the thread count

struct Directory {
    Directory()
    {
        const char* base = std::getenv("TMPDIR");
        std::string pattern = std::string(base && *base ? base : "/tmp") + "/orv-spdlog-bench-XXXXXX";
        if (!::mkdtemp(&pattern[0]))
            Fail("mkdtemp failed");
        path = pattern;
    }
    ~Directory() { std::filesystem::remove_all(path); }
    std::string path;
};

// The texts, made before any clock starts: thread t logs lines[t].
std::vector<std::vector<std::string>> MakeLines(int threads)
{
    std::vector<std::vector<std::string>> lines(threads);
    for (int t = 0; t < threads; ++t) {
        for (int i = 0; i < kLines / threads; ++i)
            lines[t].push_back("bench thread " + std::to_string(t) + " line " + std::to_string(i) +
                               ": Sending request to https://server.example/api/2.0/sites/site-id/projects");
    }
    return lines;
}

// Runs body(t) on `threads` threads and returns the wall time until all end.
double OnThreads(int threads, const std::function<void(int)>& body)
{
    std::vector<std::thread> workers;
    const double start = WallSeconds();
    for (int t = 0; t < threads; ++t)
        workers.emplace_back(body, t);
    for (std::thread& worker : workers)
        worker.join();
    return WallSeconds() - start;
}

struct Timing {
    double callers;  // until the last caller returned
    double written;  // until every line was on disk and the writer joined
};

Timing Library(const std::vector<std::vector<std::string>>& lines)
{
    Directory dir;
    const std::string file = dir.path + "/bench.log";
    RefCntPtr<SimpleLogger> logger(new SimpleLogger(std::wstring(file.begin(), file.end()), 0));
    RefCntPtr<Thread> writer(new Thread(RefCntPtr<Runnable>(logger)));
    writer->Start();
    const double start = WallSeconds();
    const double callers = OnThreads(static_cast<int>(lines.size()), [&](int t) {
        for (const std::string& line : lines[t])
            logger->QueueMessage(line);
    });
    logger->QueueStop();
    writer->Join();
    return {callers, WallSeconds() - start};
}

Timing Spdlog(const std::vector<std::vector<std::string>>& lines)
{
    Directory dir;
    // Room for every line, so that callers never block on a full queue: the
    // library's queue is unbounded.
    auto pool = std::make_shared<spdlog::details::thread_pool>(kLines + 1024, 1);
    auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(dir.path + "/bench.log", true);
    auto logger = std::make_shared<spdlog::async_logger>("bench", sink, pool, spdlog::async_overflow_policy::block);
    logger->set_pattern("%Y-%m-%d %H:%M:%S.%e (%t): %v");
    logger->flush_on(spdlog::level::trace);  // a flush after every line, as the library does
    const double start = WallSeconds();
    const double callers = OnThreads(static_cast<int>(lines.size()), [&](int t) {
        for (const std::string& line : lines[t])
            logger->info(line);
    });
    logger.reset();
    pool.reset();  // joins the worker once it has written everything queued
    return {callers, WallSeconds() - start};
}

}  // namespace

int main(int argc, char** argv)
{
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 5;
    if (rounds < 1 || rounds > 1000)
        Fail("rounds out of range 1..1000");
    const auto lines1 = MakeLines(1);
    const auto lines8 = MakeLines(8);

    for (int round = 0; round < rounds; ++round) {
        const std::string suffix = "_" + std::to_string(round);
        Timing lib1{}, lib8{}, spd1{}, spd8{};
        // Alternate which logger goes first, so neither always meets a warm cache.
        if (round % 2 == 0) {
            lib1 = Library(lines1);
            spd1 = Spdlog(lines1);
            lib8 = Library(lines8);
            spd8 = Spdlog(lines8);
        } else {
            spd1 = Spdlog(lines1);
            lib1 = Library(lines1);
            spd8 = Spdlog(lines8);
            lib8 = Library(lines8);
        }
        Report(("lib_queue1_s" + suffix).c_str(), lib1.callers);
        Report(("spdlog_queue1_s" + suffix).c_str(), spd1.callers);
        Report(("lib_queue8_s" + suffix).c_str(), lib8.callers);
        Report(("spdlog_queue8_s" + suffix).c_str(), spd8.callers);
        Report(("lib_drain_s" + suffix).c_str(), lib1.written);
        Report(("spdlog_drain_s" + suffix).c_str(), spd1.written);
    }
    Report("lines", static_cast<long>(kLines));
    return 0;
}
