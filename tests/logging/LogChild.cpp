// The second process of the log-lock tests: starts the library (its log where ORV_SDK_LOGDIR says)
// and logs MESSAGE; then "log" stops and ends, "exit" ends without stopping, "hold" waits a minute
// at most to be killed.
#include "capi/ServerAPI.h"
#include "logging/Logger.h"

#include <unistd.h>

int main(int argc, char** argv)
{
    const std::string mode = argc >= 3 ? argv[1] : "";
    OrvaneInternal::ServerAPI::Initialize();
    OrvaneInternal::Logger::Get()->QueueMessage(std::string(argc >= 3 ? argv[2] : ""));
    if (mode == "log")
        OrvaneInternal::ServerAPI::Cleanup();
    for (int second = 0; mode == "hold" && second < 60; ++second)
        sleep(1);
    return mode == "log" || mode == "exit" || mode == "hold" ? 0 : 2;
}
