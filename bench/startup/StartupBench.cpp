// Start-up and shutdown of the library (OrvServerAPIInitialize followed by
// OrvServerAPICleanup) or, built as the reference, of libcurl alone
// (curl_global_init followed by curl_global_cleanup). Built twice, so that the
// reference process loads libcurl only and whole-process times compare too.
//
// The first cycle in a process pays the one-time costs (lazy symbol binding,
// TLS library set-up, first allocations); later cycles show what a host pays
// for every further start and stop.
//
// Usage: startup_lib|startup_curl [cycles]   (default 50). Prints key=value.
#include "bench/common/BenchSupport.h"

#if ORV_BENCH_LIBRARY
#include <orvane/OrvaneServer.h>
#else
#include <curl/curl.h>
#endif

#include <algorithm>
#include <vector>

using namespace OrvaneBench;

namespace {

void Cycle()
{
#if ORV_BENCH_LIBRARY
    if (OrvServerAPIInitialize() != ORV_RESULT_Success || OrvServerAPICleanup() != ORV_RESULT_Success)
        Fail("library start-up or shutdown failed");
#else
    if (curl_global_init(CURL_GLOBAL_ALL) != CURLE_OK)
        Fail("curl_global_init failed");
    curl_global_cleanup();
#endif
}

}  // namespace

int main(int argc, char** argv)
{
    const int cycles = argc > 1 ? std::atoi(argv[1]) : 50;
    if (cycles < 1 || cycles > 100000)
        Fail("cycles out of range 1..100000");

    double start = WallSeconds();
    double cpu = ProcessCpuSeconds();
    Cycle();
    Report("first_wall_s", WallSeconds() - start);
    Report("first_cpu_s", ProcessCpuSeconds() - cpu);

    std::vector<double> walls;
    start = WallSeconds();
    cpu = ProcessCpuSeconds();
    for (int i = 1; i < cycles; ++i) {
        const double before = WallSeconds();
        Cycle();
        walls.push_back(WallSeconds() - before);
    }
    if (!walls.empty()) {
        std::sort(walls.begin(), walls.end());
        Report("warm_median_wall_s", walls[walls.size() / 2]);
        Report("warm_mean_wall_s", (WallSeconds() - start) / static_cast<double>(walls.size()));
        Report("warm_mean_cpu_s", (ProcessCpuSeconds() - cpu) / static_cast<double>(walls.size()));
    }
    Report("peak_rss_kib", PeakRssKiB());
    return 0;
}
