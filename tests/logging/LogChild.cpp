// A second process for the logging and start-up tests. It starts the library
// (the log goes where ORV_SDK_LOGDIR says), logs one message and then either
// cleans up ("log") or leaves the writer running and returns from main
// ("exit"), which must neither hang nor lose the message.
#include "capi/ServerAPI.h"
#include "logging/Logger.h"

#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

using namespace OrvaneInternal;

int main(int argc, char** argv)
{
    if (argc != 3 || (std::strcmp(argv[1], "log") != 0 && std::strcmp(argv[1], "exit") != 0)) {
        std::fprintf(stderr, "usage: %s log|exit MESSAGE\n", argv[0]);
        return 2;
    }
    try {
        ServerAPI::Initialize();
        Logger::Get()->QueueMessage(std::string(argv[2]));
        if (std::strcmp(argv[1], "log") == 0)
            ServerAPI::Cleanup();
        return 0;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "start-up failed: %s\n", e.what());
    } catch (...) {
        std::fprintf(stderr, "start-up failed\n");
    }
    return 1;
}
