// Publishes one extract through the exported C API, as a user program would,
// and reports what the publish call cost: wall time, CPU time of the whole
// process (the log writer included) and of the calling thread, and at the end
// the process's peak resident set and the bytes it has read and written
// (which show that the whole file went out). Start-up and sign-in are outside the timed
// call. Used by tools/bench.sh for the upload, memory and lookup figures.
//
// Usage: publish_bench --server URL --project NAME --file PATH.qrx [--rounds N]
// Prints key=value lines; round i's figures carry the suffix _i.
#include "bench/common/BenchSupport.h"

#include <orvane/OrvaneServer.h>

#include <cstring>
#include <string>

using namespace OrvaneBench;

namespace {

void Check(const char* step, ORV_RESULT rc)
{
    if (rc != ORV_RESULT_Success) {
        const wchar_t* message = OrvGetLastErrorMessage();
        std::fprintf(stderr, "bench: %s failed with %d: %ls\n", step, static_cast<int>(rc), message ? message : L"");
        std::exit(1);
    }
}

}  // namespace

int main(int argc, char** argv)
{
    std::string server;
    std::string project;
    std::string file;
    int rounds = 1;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--server") == 0)
            server = argv[i + 1];
        else if (std::strcmp(argv[i], "--project") == 0)
            project = argv[i + 1];
        else if (std::strcmp(argv[i], "--file") == 0)
            file = argv[i + 1];
        else if (std::strcmp(argv[i], "--rounds") == 0)
            rounds = std::atoi(argv[i + 1]);
        else
            Fail(std::string("unknown option ") + argv[i]);
    }
    if (server.empty() || project.empty() || file.empty() || rounds < 1 || rounds > 1000)
        Fail("usage: publish_bench --server URL --project NAME --file PATH.qrx [--rounds 1..1000]");

    const Utf16 host = ToUtf16(server);
    const Utf16 user = ToUtf16("bench");
    const Utf16 password = ToUtf16("bench-password");
    const Utf16 site = ToUtf16("bench");
    const Utf16 projectName = ToUtf16(project);
    const Utf16 path = ToUtf16(file);
    const Utf16 name = ToUtf16("bench-extract");

    Check("OrvServerAPIInitialize", OrvServerAPIInitialize());
    void* connection = nullptr;
    Check("OrvServerConnectionCreate", OrvServerConnectionCreate(&connection));
    Check("OrvServerConnectionConnect",
          OrvServerConnectionConnect(connection, host.c_str(), user.c_str(), password.c_str(), site.c_str()));
    for (int round = 0; round < rounds; ++round) {
        long readBefore = 0;
        long writtenBefore = 0;
        IoBytes(readBefore, writtenBefore);
        const double wall = WallSeconds();
        const double cpu = ProcessCpuSeconds();
        const double threadCpu = ThreadCpuSeconds();
        Check("OrvServerConnectionPublishExtract",
              OrvServerConnectionPublishExtract(connection, path.c_str(), projectName.c_str(), name.c_str(), 1));
        const std::string suffix = "_" + std::to_string(round);
        Report(("publish_wall_s" + suffix).c_str(), WallSeconds() - wall);
        Report(("publish_cpu_s" + suffix).c_str(), ProcessCpuSeconds() - cpu);
        Report(("publish_thread_cpu_s" + suffix).c_str(), ThreadCpuSeconds() - threadCpu);
        long readAfter = 0;
        long writtenAfter = 0;
        IoBytes(readAfter, writtenAfter);
        Report(("publish_read_bytes" + suffix).c_str(), readAfter - readBefore);
        Report(("publish_written_bytes" + suffix).c_str(), writtenAfter - writtenBefore);
    }
    Check("OrvServerConnectionClose", OrvServerConnectionClose(connection));
    Check("OrvServerAPICleanup", OrvServerAPICleanup());
    Report("peak_rss_kib", PeakRssKiB());
    return 0;
}
