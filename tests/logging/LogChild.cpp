// The second process of the log tests: starts the library (its log where ORV_SDK_LOGDIR says)
// and logs MESSAGE; then "log" stops and ends, "exit" ends without stopping, "hold" waits a minute
// at most to be killed, and "fork" forks while a thread of its own logs (see ForkAndLog).
#include "capi/ServerAPI.h"
#include "logging/Logger.h"

#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <thread>

using OrvaneInternal::Logger;
using OrvaneInternal::ServerAPI;

// The forked child starts threads of its own, which the thread sanitizer refuses by default.
extern "C" const char* __tsan_default_options()
{
    return "die_after_fork=0";
}

namespace {

void Log(const std::string& text)
{
    Logger::Get()->QueueMessage(text);
}

// Forks while a thread logs "parent thread 0..1999"; the child logs "child line 0..99", stops the
// library and ends with _exit, as a forked child should: what it copied from the parent (lines
// still queued there among them) is the parent's to write and free. 0 when the child exited with 0.
int ForkAndLog()
{
    std::thread busy([] {
        for (int i = 0; i < 2000; ++i)
            Log("parent thread " + std::to_string(i));
    });
    const pid_t child = fork();
    if (child == 0) {
        alarm(20); // a child that hangs still ends
        for (int i = 0; i < 100; ++i)
            Log("child line " + std::to_string(i));
        ServerAPI::Cleanup();
        _exit(0);
    }
    busy.join();
    int status = -1;
    const bool ok = child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    Log(ok ? "the child exited with 0" : "the child failed: " + std::to_string(status));
    Log("after the fork");
    return ok ? 0 : 3;
}

} // namespace

int main(int argc, char** argv)
{
    const std::string mode = argc >= 3 ? argv[1] : "";
    ServerAPI::Initialize();
    Log(argc >= 3 ? argv[2] : "");
    if (mode == "fork") {
        const int result = ForkAndLog();
        ServerAPI::Cleanup();
        return result;
    }
    if (mode == "log")
        ServerAPI::Cleanup();
    for (int second = 0; mode == "hold" && second < 60; ++second)
        sleep(1);
    return mode == "log" || mode == "exit" || mode == "hold" ? 0 : 2;
}
