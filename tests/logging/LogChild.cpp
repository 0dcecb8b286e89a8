// The second process of the logging, start-up and log-lock tests. It starts the
// library (its log goes where ORV_SDK_LOGDIR says), logs MESSAGE, then:
//   log MESSAGE                    stops the library and ends;
//   exit MESSAGE [PID_FILE PROG..] starts PROG with fork and exec (writing its pid
//                                  once the exec is done) and returns from main with
//                                  the writer still running: it must neither hang
//                                  nor lose the message;
//   hold MESSAGE READY_FILE        creates READY_FILE and waits (a minute at most)
//                                  to be killed, its log open and locked.
#include "capi/ServerAPI.h"
#include "logging/Logger.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <string>

using namespace OrvaneInternal;

int main(int argc, char** argv)
{
    const std::string mode = argc >= 3 ? argv[1] : "";
    if (!(mode == "log" && argc == 3) && !(mode == "hold" && argc == 4) && !(mode == "exit" && argc != 4)) {
        std::fprintf(stderr, "usage: %s log|exit|hold MESSAGE [...]\n", argv[0]);
        return 2;
    }
    ServerAPI::Initialize();  // a failure ends the process with the exception
    Logger::Get()->QueueMessage(std::string(argv[2]));
    if (mode == "log") {
        ServerAPI::Cleanup();
    } else if (mode == "hold") {
        std::ofstream(argv[3]) << "ready\n";
        for (int second = 0; second < 60; ++second)
            ::sleep(1);
    } else if (argc > 4) {
        // A close-on-exec pipe tells when the exec is done; the program's stdio is /dev/null.
        int sync[2];
        if (::pipe2(sync, O_CLOEXEC) != 0)
            return 1;
        const pid_t child = ::fork();
        if (child == 0) {
            const int null = ::open("/dev/null", O_RDWR);
            for (int fd = 0; fd < 3 && null >= 0; ++fd)
                ::dup2(null, fd);
            ::execvp(argv[4], argv + 4);
            (void)!::write(sync[1], "x", 1);
            ::_exit(127);
        }
        ::close(sync[1]);
        char failed = 0;
        ssize_t got;
        while ((got = ::read(sync[0], &failed, 1)) < 0 && errno == EINTR) {
        }
        if (child < 0 || got != 0)
            return 1;
        std::ofstream(argv[3]) << child << "\n";
    }
    return 0;
}
