// The floor for an upload on this machine: a file read into a user buffer and written to a loopback
// TCP socket, received and discarded by a second thread, no HTTP on either side. Any client streaming
// a file from user space pays at least these copies, so this is what an upload could approach.
//
// Usage: loopback_copy FILE   Prints copy_wall_s.
#include "bench/common/BenchSupport.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <thread>
#include <vector>

using namespace OrvaneBench;

namespace {

// read(2) or send(2) until it does not fail with EINTR.
template <typename Call> ssize_t Retry(const char* what, Call call)
{
    ssize_t n;
    while ((n = call()) < 0 && errno == EINTR) {
    }
    if (n < 0)
        Fail(std::string(what) + " failed");
    return n;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2)
        Fail("usage: loopback_copy FILE");
    std::vector<char> buffer(65536); // libcurl's upload buffer
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (listener < 0 || ::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener, 1) != 0 || ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        Fail("cannot listen on loopback");
    const int file = ::open(argv[1], O_RDONLY | O_CLOEXEC);
    if (file < 0)
        Fail(std::string("cannot open ") + argv[1]);

    long received = 0;
    const double start = Seconds(CLOCK_MONOTONIC);
    std::thread receiver([&] {
        const int peer = ::accept(listener, nullptr, nullptr);
        std::vector<char> sink(65536);
        while (const ssize_t n = Retry("recv", [&] { return ::recv(peer, sink.data(), sink.size(), 0); }))
            received += n;
        ::close(peer);
    });
    const int out = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (out < 0 || ::connect(out, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        Fail("cannot connect on loopback");
    long sent = 0;
    while (const ssize_t n = Retry("read", [&] { return ::read(file, buffer.data(), buffer.size()); })) {
        for (ssize_t done = 0; done < n;) {
            const size_t left = static_cast<size_t>(n - done);
            done += Retry("send", [&] { return ::send(out, buffer.data() + done, left, MSG_NOSIGNAL); });
        }
        sent += n;
    }
    ::close(out);
    receiver.join();
    const double wall = Seconds(CLOCK_MONOTONIC) - start;
    ::close(file);
    ::close(listener);
    if (received != sent)
        Fail("the receiver got a different byte count");
    Report("copy_wall_s", wall);
    return 0;
}
