// The second process of the log tests: starts the library (log where ORV_SDK_LOGDIR says), logs
// MESSAGE, then "log": stops and ends; "hold": waits (a minute at most) to be killed; "exit PID_FILE PROG...": starts PROG (writing its pid) and
// returns from main without Cleanup, the writer still running.
#include "capi/ServerAPI.h"
#include "logging/Logger.h"

#include <unistd.h>

#include <fstream>
#include <string>

int main(int argc, char** argv)
{
    using namespace OrvaneInternal;
    const std::string mode = argc >= 3 ? argv[1] : "";
    ServerAPI::Initialize();
    Logger::Get()->QueueMessage(std::string(argv[2]));
    if (mode == "log") {
        ServerAPI::Cleanup();
    } else if (mode == "hold") {
        for (int second = 0; second < 60; ++second)
            sleep(1);
    } else if (mode == "exit" && argc > 4) {
        const pid_t child = fork();
        if (child == 0) {
            execvp(argv[4], argv + 4);
            _exit(127);
        }
        std::ofstream(argv[3]) << child << "\n";
    } else {
        return 2;
    }
    return 0;
}
