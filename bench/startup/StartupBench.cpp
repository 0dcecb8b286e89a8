// Start-up and shutdown of the library (OrvServerAPIInitialize, OrvServerAPICleanup) or, built as the
// reference, of libcurl alone (curl_global_init, curl_global_cleanup), in a process that loads only
// what it needs. The first cycle pays the one-time costs (symbol binding, TLS library set-up, first
// allocations); later ones show what a host pays for every further start and stop.
//
// Usage: startup_lib|startup_curl [CYCLES]   (default 50). Prints key=value lines.
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

double Cycle()
{
    const double start = Seconds(CLOCK_MONOTONIC);
#if ORV_BENCH_LIBRARY
    if (OrvServerAPIInitialize() != ORV_RESULT_Success || OrvServerAPICleanup() != ORV_RESULT_Success)
        Fail("library start-up or shutdown failed");
#else
    if (curl_global_init(CURL_GLOBAL_ALL) != CURLE_OK)
        Fail("curl_global_init failed");
    curl_global_cleanup();
#endif
    return Seconds(CLOCK_MONOTONIC) - start;
}

} // namespace

int main(int argc, char** argv)
{
    const int cycles = Number(argc, argv, 1, 50, 1, 100000);
    Report("first_wall_s", Cycle());
    std::vector<double> walls;
    for (int i = 1; i < cycles; ++i)
        walls.push_back(Cycle());
    if (!walls.empty()) {
        std::sort(walls.begin(), walls.end());
        Report("warm_median_wall_s", walls[walls.size() / 2]);
    }
    Report("peak_rss_kib", ProcSelf("status", "VmHWM:"));
    return 0;
}
