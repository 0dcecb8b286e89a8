// The floor for an upload on this machine: the bytes of a file read into a
// user buffer and written to a loopback TCP socket, received and discarded by
// a second thread, with no HTTP on either side. Any client that streams a file
// from user space pays at least these copies (file -> buffer -> socket ->
// receiver), so its time is what an upload could approach, not beat.
//
// Usage: loopback_copy FILE [chunk-bytes]   (default 65536, libcurl's upload
// buffer). Prints copy_wall_s and copy_bytes.
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

long long Drain(int listener)
{
    const int peer = ::accept(listener, nullptr, nullptr);
    if (peer < 0)
        Fail("accept failed");
    std::vector<char> buffer(65536);
    long long total = 0;
    for (;;) {
        const ssize_t n = ::recv(peer, buffer.data(), buffer.size(), 0);
        if (n == 0)
            break;
        if (n < 0) {
            if (errno == EINTR)
                continue;
            Fail("recv failed");
        }
        total += n;
    }
    ::close(peer);
    return total;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 2)
        Fail("usage: loopback_copy FILE [chunk-bytes]");
    const size_t chunk = argc > 2 ? static_cast<size_t>(std::atol(argv[2])) : 65536;
    if (chunk == 0 || chunk > (64u << 20))
        Fail("chunk size out of range");

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

    long long received = 0;
    const double start = WallSeconds();
    std::thread receiver([&] { received = Drain(listener); });
    const int out = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (out < 0 || ::connect(out, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        Fail("cannot connect on loopback");
    std::vector<char> buffer(chunk);
    long long sent = 0;
    for (;;) {
        const ssize_t n = ::read(file, buffer.data(), buffer.size());
        if (n == 0)
            break;
        if (n < 0) {
            if (errno == EINTR)
                continue;
            Fail("read failed");
        }
        for (ssize_t done = 0; done < n;) {
            const ssize_t k = ::send(out, buffer.data() + done, static_cast<size_t>(n - done), MSG_NOSIGNAL);
            if (k < 0) {
                if (errno == EINTR)
                    continue;
                Fail("send failed");
            }
            done += k;
        }
        sent += n;
    }
    ::close(out);
    receiver.join();
    const double wall = WallSeconds() - start;
    ::close(file);
    ::close(listener);
    if (received != sent)
        Fail("receiver got a different byte count");
    Report("copy_wall_s", wall);
    Report("copy_bytes", static_cast<long>(sent));
    return 0;
}
