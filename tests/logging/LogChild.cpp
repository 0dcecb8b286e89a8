// The second process of the log tests: starts the library (its log where ORV_SDK_LOGDIR says)
// and logs MESSAGE; then "log" stops and ends, "exit" ends without stopping, "hold" waits a minute
// at most to be killed, and "fork" forks while a thread of its own logs (see ForkAndLog; its third
// argument is the number of lines the child logs, an optional fourth "idle").
#include "capi/ServerAPI.h"
#include "logging/Logger.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

using OrvaneInternal::Logger;
using OrvaneInternal::ServerAPI;

namespace {

void Log(const std::string& text)
{
    Logger::Get()->QueueMessage(text);
}

// True once `text` is in the log, waiting 10 s at most.
bool Written(const std::string& text)
{
    const std::string path(Logger::Get()->GetBaseFilePath().begin(), Logger::Get()->GetBaseFilePath().end());
    for (int tries = 0; tries < 1000; ++tries) {
        std::ifstream log(path);
        const std::string content((std::istreambuf_iterator<char>(log)), std::istreambuf_iterator<char>());
        if (content.find(text) != std::string::npos)
            return true;
        usleep(10000);
    }
    return false;
}

// Forks while a thread logs "parent thread 0..1999" (with `idle`, once those lines are written and
// the parent's threads rest); the child logs "child line 0..N-1" (none when N is 0), stops the
// library and ends with _exit, as a forked child should: what it copied from the parent (lines
// still queued there among them) is the parent's to write and free. 0 when the child exited with 0.
int ForkAndLog(int childLines, bool idle)
{
    std::thread busy([] {
        for (int i = 0; i < 2000; ++i)
            Log("parent thread " + std::to_string(i));
    });
    if (idle) {
        busy.join();
        if (!Written("parent thread 1999"))
            return 4;
    }
    const pid_t child = fork();
    if (child == 0) {
        alarm(20); // a child that hangs still ends
        for (int i = 0; i < childLines; ++i)
            Log("child line " + std::to_string(i));
        if (childLines > 0)
            ServerAPI::Cleanup();
        _exit(0);
    }
    if (busy.joinable())
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
        const int result = ForkAndLog(argc >= 4 ? std::atoi(argv[3]) : 0, argc >= 5 && argv[4] == std::string("idle"));
        ServerAPI::Cleanup();
        return result;
    }
    if (mode == "log")
        ServerAPI::Cleanup();
    for (int second = 0; mode == "hold" && second < 60; ++second)
        sleep(1);
    return mode == "log" || mode == "exit" || mode == "hold" ? 0 : 2;
}
