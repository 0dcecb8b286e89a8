// Publishes one extract through the exported C API, as a user program would, and reports what each
// publish call cost: wall time, CPU time of the whole process (the log writer included) and the bytes
// read meanwhile, which show that the whole file went out (libcurl asks for the next chunk only once
// the last one is sent); at the end, the peak resident set. Start-up and sign-in are not timed.
//
// Usage: publish_bench URL PROJECT FILE.qrx [ROUNDS] [MODE]   round i's figures carry the suffix _i.
// MODE: plain (no extension call), limits (progress, cancel and every limit set) or buffer512k.
#include "bench/common/BenchSupport.h"

#include <orvane/OrvaneServerExt.h>

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

} // namespace

int main(int argc, char** argv)
{
    if (argc < 4)
        Fail("usage: publish_bench URL PROJECT FILE.qrx [ROUNDS] [MODE]");
    const int rounds = Number(argc, argv, 4, 1, 1, 1000);
    const Utf16 server = ToUtf16(argv[1]), project = ToUtf16(argv[2]), path = ToUtf16(argv[3]);
    const Utf16 user = ToUtf16("bench"), password = ToUtf16("bench-password"), site = ToUtf16("bench");
    const Utf16 name = ToUtf16("bench-extract");

    Check("OrvServerAPIInitialize", OrvServerAPIInitialize());
    void* connection = nullptr;
    Check("OrvServerConnectionCreate", OrvServerConnectionCreate(&connection));
    Check("OrvServerConnectionConnect",
          OrvServerConnectionConnect(connection, server.c_str(), user.c_str(), password.c_str(), site.c_str()));
    const char* mode = argc > 5 ? argv[5] : "plain";
    if (std::strcmp(mode, "limits") == 0) {
        // The cheapest progress callback a caller could give: what remains is the library's own cost.
        for (ORV_RESULT rc :
             {OrvServerConnectionSetProgressCallback(
                  connection, [](void*, uint64_t, uint64_t) { return 0; }, nullptr),
              OrvServerConnectionEnableCancel(connection), OrvServerConnectionSetConnectTimeout(connection, 10),
              OrvServerConnectionSetStallTimeout(connection, 60), OrvServerConnectionSetMaxRedirects(connection, 5),
              OrvServerConnectionSetMaxReplySize(connection, 1 << 20)})
            Check("an extension setter", rc);
    } else if (std::strcmp(mode, "buffer512k") == 0) {
        Check("OrvServerConnectionSetUploadBufferSize", OrvServerConnectionSetUploadBufferSize(connection, 512 << 10));
    } else if (std::strcmp(mode, "plain") != 0) {
        Fail("MODE is plain, limits or buffer512k");
    }
    for (int round = 0; round < rounds; ++round) {
        const long read = ProcSelf("io", "rchar:");
        const double wall = Seconds(CLOCK_MONOTONIC);
        const double cpu = Seconds(CLOCK_PROCESS_CPUTIME_ID);
        Check("OrvServerConnectionPublishExtract",
              OrvServerConnectionPublishExtract(connection, path.c_str(), project.c_str(), name.c_str(), 1));
        const std::string suffix = "_" + std::to_string(round);
        Report("publish_wall_s" + suffix, Seconds(CLOCK_MONOTONIC) - wall);
        Report("publish_cpu_s" + suffix, Seconds(CLOCK_PROCESS_CPUTIME_ID) - cpu);
        Report("publish_read_bytes" + suffix, ProcSelf("io", "rchar:") - read);
    }
    Check("OrvServerConnectionClose", OrvServerConnectionClose(connection));
    Check("OrvServerAPICleanup", OrvServerAPICleanup());
    Report("peak_rss_kib", ProcSelf("status", "VmHWM:"));
    return 0;
}
