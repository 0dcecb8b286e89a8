// The second process of the log tests: starts the library (its log where ORV_SDK_LOGDIR says) and
// logs MESSAGE; then "log" stops and ends, "hold" waits a minute at most to be killed, and
// "exit PID_FILE PROG..." starts PROG, writes its pid and returns from main without Cleanup.
#include "capi/ServerAPI.h"
#include "logging/Logger.h"

#include <unistd.h>

#include <fstream>

int main(int argc, char** argv)
{
    const std::string mode = argc >= 3 ? argv[1] : "";
    OrvaneInternal::ServerAPI::Initialize();
    OrvaneInternal::Logger::Get()->QueueMessage(std::string(argc >= 3 ? argv[2] : ""));
    if (mode == "log")
        OrvaneInternal::ServerAPI::Cleanup();
    for (int second = 0; mode == "hold" && second < 60; ++second)
        sleep(1);
    const pid_t child = mode == "exit" && argc > 4 ? fork() : -1;
    if (child == 0)
        execvp(argv[4], argv + 4), _exit(127);
    if (child > 0)
        std::ofstream(argv[3]) << child << "\n";
    return mode == "log" || mode == "hold" || child > 0 ? 0 : 2;
}
