// The library's file logger beside spdlog's asynchronous logger set up the same way: one writer thread, a queue the
// caller never waits on, the same header fields (date, time with milliseconds, thread id) and lines, a flush after
// every line. Per logger and round (the first logger alternating): queue1, the callers' time for 100,000 calls from
// 1 thread, writer running; queue8, the same calls spread over 8 threads; drain, from the first call (1 thread)
// until every line is written and the writer joined.
//
// Usage: logging_spdlog_bench [ROUNDS]   (default 5). Prints lib_*_s_i and spdlog_*_s_i.
#include "bench/common/BenchSupport.h"
#include "logging/SimpleLogger.h"
#include "sys/Thread.h"

#include <spdlog/async.h>
#include <spdlog/async_logger.h>
#include <spdlog/sinks/basic_file_sink.h>

#include <unistd.h>

#include <filesystem>
#include <memory>
#include <thread>
#include <vector>

using namespace OrvaneBench;
using OrvaneInternal::SimpleLogger;
using Lines = std::vector<std::vector<std::string>>; // thread t logs lines[t]

namespace {

constexpr int kLines = 100000; // per measurement, whatever the thread count

// A fresh directory under $TMPDIR (or /tmp), removed afterwards.
struct Directory {
    Directory() { std::filesystem::create_directory(path); }
    ~Directory() { std::filesystem::remove_all(path); }
    std::string path = std::filesystem::temp_directory_path() / ("orv-spdlog-bench-" + std::to_string(::getpid()));
};

// The texts, made before any clock starts.
Lines MakeLines(int threads)
{
    Lines lines(threads);
    for (int t = 0; t < threads; ++t) {
        for (int i = 0; i < kLines / threads; ++i)
            lines[t].push_back("bench thread " + std::to_string(t) + " line " + std::to_string(i) +
                               ": Sending request to https://server.example/api/2.0/sites/site-id/projects");
    }
    return lines;
}

struct Timing {
    double callers; // until the last caller returned
    double written; // until every line was on disk and the writer joined
};

// Every line through log() on its own thread, then stop(), which returns once all is written.
template <typename Log, typename Stop> Timing Measure(const Lines& lines, Log log, Stop stop)
{
    std::vector<std::thread> workers;
    const double start = Seconds(CLOCK_MONOTONIC);
    for (const std::vector<std::string>& mine : lines)
        workers.emplace_back([&log, &mine] {
            for (const std::string& line : mine)
                log(line);
        });
    for (std::thread& worker : workers)
        worker.join();
    const double callers = Seconds(CLOCK_MONOTONIC) - start;
    stop();
    return {callers, Seconds(CLOCK_MONOTONIC) - start};
}

Timing Library(const Lines& lines)
{
    Directory dir;
    const std::string file = dir.path + "/bench.log";
    RefCntPtr<SimpleLogger> logger(new SimpleLogger(std::wstring(file.begin(), file.end()), 0));
    RefCntPtr<Thread> writer(new Thread(RefCntPtr<Runnable>(logger)));
    writer->Start();
    return Measure(
        lines, [&](const std::string& line) { logger->QueueMessage(line); },
        [&] {
            logger->QueueStop();
            writer->Join();
        });
}

Timing Spdlog(const Lines& lines)
{
    Directory dir;
    // Room for every line, so that callers never block on a full queue: the library's queue is unbounded.
    auto pool = std::make_shared<spdlog::details::thread_pool>(kLines + 1024, 1);
    auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(dir.path + "/bench.log", true);
    auto logger = std::make_shared<spdlog::async_logger>("bench", sink, pool, spdlog::async_overflow_policy::block);
    logger->set_pattern("%Y-%m-%d %H:%M:%S.%e (%t): %v");
    logger->flush_on(spdlog::level::trace); // a flush after every line, as the library does
    // Dropping the pool joins its worker once it has written everything queued.
    return Measure(
        lines, [&](const std::string& line) { logger->info(line); },
        [&] {
            logger.reset();
            pool.reset();
        });
}

} // namespace

int main(int argc, char** argv)
{
    const int rounds = Number(argc, argv, 1, 5, 1, 1000);
    const Lines lines1 = MakeLines(1), lines8 = MakeLines(8);
    Timing (*const logger[2])(const Lines&) = {&Library, &Spdlog};
    for (int round = 0; round < rounds; ++round) {
        // Alternate which logger goes first, so neither always meets a warm cache.
        for (int turn = 0; turn < 2; ++turn) {
            const int who = (turn + round) % 2;
            const Timing one = logger[who](lines1);
            const Timing eight = logger[who](lines8);
            const std::string name = who == 0 ? "lib_" : "spdlog_", suffix = "_s_" + std::to_string(round);
            Report(name + "queue1" + suffix, one.callers);
            Report(name + "queue8" + suffix, eight.callers);
            Report(name + "drain" + suffix, one.written);
        }
    }
    return 0;
}
