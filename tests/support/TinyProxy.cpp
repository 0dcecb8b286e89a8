#include "tests/support/TinyProxy.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <thread>

#ifndef ORV_TINYPROXY
#define ORV_TINYPROXY "tinyproxy"
#endif

namespace OrvaneTest {

namespace {

const int kStartAttempts = 5;
const std::chrono::milliseconds kStartLimit = std::chrono::seconds(10);
const std::chrono::milliseconds kPollStep = std::chrono::milliseconds(10);

// tinyproxy cannot be told to take any free port and report it, so one is found here and
// handed over; another process may take it meanwhile, which the caller retries.
unsigned short FreeLoopbackPort()
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        throw std::runtime_error(std::string("TinyProxy: socket: ") + std::strerror(errno));
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        int error = errno;
        close(fd);
        throw std::runtime_error(std::string("TinyProxy: no free loopback port: ") + std::strerror(error));
    }
    close(fd);
    return ntohs(address.sin_port);
}

bool Unquotable(const std::string& text)
{
    return text.find_first_of(" \t\r\n\"'") != std::string::npos;
}

}  // namespace

TinyProxy::TinyProxy(const ProxyOptions& options) : m_dir("orv-proxy")
{
    if (Unquotable(options.user) || Unquotable(options.password) || options.user.empty() != options.password.empty()) {
        throw std::invalid_argument("TinyProxy: credentials need a user and a password without blanks or quotes");
    }
    std::string failures;
    for (int attempt = 0; attempt < kStartAttempts; ++attempt) {
        unsigned short port = FreeLoopbackPort();
        std::string failure;
        if (TryStart(port, options, failure)) {
            m_port = port;
            return;
        }
        failures += failure + "\n";
    }
    throw std::runtime_error("tinyproxy did not start:\n" + failures);
}

TinyProxy::~TinyProxy()
{
    m_process.reset();
}

bool TinyProxy::TryStart(unsigned short port, const ProxyOptions& options, std::string& failure)
{
    const std::string log = m_dir.File("tinyproxy.log");
    const std::string output = m_dir.File("output.log");
    std::string config = "Port " + std::to_string(port) +
                         "\n"
                         "Listen 127.0.0.1\n"
                         "Timeout 60\n"
                         "MaxClients 32\n"
                         "LogFile \"" + log + "\"\n"
                         "LogLevel Info\n"
                         "Allow 127.0.0.1\n"
                         "ViaProxyName \"" + kViaName + "\"\n";
    if (!options.user.empty()) {
        config += "BasicAuth " + options.user + " " + options.password + "\n";
    }
    WriteFileBytes(m_dir.File("tinyproxy.conf"), config);
    std::remove(log.c_str());

    m_process = std::make_unique<ChildProcess>(
        std::vector<std::string>{ORV_TINYPROXY, "-d", "-c", m_dir.File("tinyproxy.conf")}, output);
    for (auto waited = std::chrono::milliseconds(0); waited < kStartLimit; waited += kPollStep) {
        if (ReadFileBytes(log).find("Accepting connections") != std::string::npos) {
            return true;
        }
        if (!m_process->Running()) {
            std::string said = ReadFileBytes(output) + ReadFileBytes(log);
            if (said.find("Could not create listening sockets") != std::string::npos) {
                failure = "port " + std::to_string(port) + " was taken";
                return false;
            }
            throw std::runtime_error("tinyproxy " + m_process->ExitDescription() + " before listening:\n" + said);
        }
        std::this_thread::sleep_for(kPollStep);
    }
    throw std::runtime_error("tinyproxy did not listen within 10 s:\n" + ReadFileBytes(output) + ReadFileBytes(log));
}

std::string TinyProxy::Url() const
{
    return "http://127.0.0.1:" + std::to_string(m_port);
}

std::vector<std::string> TinyProxy::RequestLines() const
{
    static const std::string marker = "]: Request (file descriptor ";
    std::vector<std::string> lines;
    for (const auto& line : SplitLines(Log())) {
        std::size_t at = line.find(marker);
        if (at == std::string::npos) {
            continue;
        }
        std::size_t start = line.find("): ", at + marker.size());
        if (start != std::string::npos) {
            lines.push_back(line.substr(start + 3));
        }
    }
    return lines;
}

std::size_t TinyProxy::ForwardedConnections() const
{
    std::size_t count = 0;
    for (const auto& line : SplitLines(Log())) {
        count += line.find("Established connection to host") != std::string::npos ? 1 : 0;
    }
    return count;
}

std::string TinyProxy::Log() const
{
    return ReadFileBytes(m_dir.File("tinyproxy.log"));
}

}  // namespace OrvaneTest
