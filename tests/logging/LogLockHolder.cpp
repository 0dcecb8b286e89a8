// A program that uses the library the way a host does, through the exported
// functions only, for the log-lock tests that need real processes:
//
//   orv_log_holder hold READY_FILE
//       starts the library, logs, creates READY_FILE and then waits (at most a
//       minute) to be killed, keeping its log open and locked;
//   orv_log_holder spawn PID_FILE PROGRAM [ARG...]
//       starts the library, logs, starts PROGRAM with fork and exec, waits
//       until the exec has happened, writes PROGRAM's pid to PID_FILE and ends
//       without stopping the library, leaving PROGRAM running.
#include <orvane/OrvaneServer.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

int Fail(const char* what)
{
    std::fprintf(stderr, "orv_log_holder: %s: %s\n", what, std::strerror(errno));
    return 1;
}

bool WriteWhole(const char* path, const std::string& text)
{
    FILE* file = std::fopen(path, "w");
    if (file == nullptr)
        return false;
    const bool written = std::fwrite(text.data(), 1, text.size(), file) == text.size();
    return std::fclose(file) == 0 && written;
}

// The child's stdio goes to /dev/null so that it holds no pipe of whoever
// started us; a close-on-exec pipe tells the parent when the exec is done.
int Spawn(const char* pidFile, char** argv)
{
    int sync[2];
    if (::pipe2(sync, O_CLOEXEC) != 0)
        return Fail("pipe2");
    const pid_t child = ::fork();
    if (child < 0)
        return Fail("fork");
    if (child == 0) {
        const int null = ::open("/dev/null", O_RDWR);
        if (null >= 0) {
            ::dup2(null, 0);
            ::dup2(null, 1);
            ::dup2(null, 2);
        }
        ::execvp(argv[0], argv);
        const int error = errno;
        (void)!::write(sync[1], &error, sizeof error);
        ::_exit(127);
    }
    ::close(sync[1]);
    int error = 0;
    ssize_t got;
    do {
        got = ::read(sync[0], &error, sizeof error);
    } while (got < 0 && errno == EINTR);
    ::close(sync[0]);
    if (got > 0) {
        errno = error;
        return Fail("exec");
    }
    if (!WriteWhole(pidFile, std::to_string(child) + "\n"))
        return Fail("pid file");
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    const bool hold = argc == 3 && std::strcmp(argv[1], "hold") == 0;
    const bool spawn = argc >= 4 && std::strcmp(argv[1], "spawn") == 0;
    if (!hold && !spawn) {
        std::fprintf(stderr, "usage: %s hold READY_FILE | spawn PID_FILE PROGRAM [ARG...]\n", argv[0]);
        return 2;
    }
    if (OrvServerAPIInitialize() != ORV_RESULT_Success) {
        std::fprintf(stderr, "orv_log_holder: start-up failed\n");
        return 1;
    }
    // A failing call is the one way a host makes the library log on demand.
    void* handle = nullptr;
    if (OrvServerConnectionCreate(&handle) != ORV_RESULT_Success)
        return 1;
    OrvServerConnectionDisconnect(handle);
    OrvServerConnectionClose(handle);

    if (spawn)
        return Spawn(argv[2], argv + 3);

    if (!WriteWhole(argv[2], "ready\n"))
        return Fail("ready file");
    for (int second = 0; second < 60; ++second)
        ::sleep(1);
    return 0;
}
