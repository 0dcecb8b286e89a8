// Hostile and unlucky situations through the exported functions. Each row: what the caller sees,
// the log line that explains it, a log of mode 0600, and nothing changed outside the log directory.
#include "CapiTestSupport.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <functional>
#include <map>

using namespace CapiTest;

namespace {

using HardeningTest = LibraryTest;

std::map<std::string, std::string> Snapshot(const std::string& dir)
{
    std::map<std::string, std::string> entries;
    for (const auto& entry : std::filesystem::directory_iterator(dir))
        entries[entry.path()] = std::to_string(static_cast<int>(entry.symlink_status().permissions())) + ":" +
                                OrvaneTest::ReadFileBytes(entry.path());
    return entries;
}

// Loopback: answers one GET with the project page, running `during` once the request is in.
class PageServer {
  public:
    PageServer()
    {
        sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t length = sizeof address;
        auto* generic = reinterpret_cast<sockaddr*>(&address);
        EXPECT_TRUE(::bind(m_fd, generic, length) == 0 && ::listen(m_fd, 4) == 0 &&
                    ::getsockname(m_fd, generic, &length) == 0);
        m_url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/page";
    }
    ~PageServer() { ::close(m_fd); }
    void Serve(const std::function<void()>& during) const
    {
        pollfd listening{m_fd, POLLIN, 0};
        const int client = ::poll(&listening, 1, 10000) == 1 ? ::accept(m_fd, nullptr, nullptr) : -1;
        pollfd readable{client, POLLIN, 0};
        char buffer[4096];
        std::string head;
        for (ssize_t n = 1; n > 0 && head.find("\r\n\r\n") == std::string::npos;) {
            n = ::poll(&readable, 1, 10000) == 1 ? ::read(client, buffer, sizeof buffer) : 0;
            head.append(buffer, n > 0 ? static_cast<std::size_t>(n) : 0);
        }
        during();
        const std::string page =
            "HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: " + std::to_string(sizeof kProjectsReply - 1) +
            "\r\n\r\n" + kProjectsReply;
        EXPECT_EQ(static_cast<ssize_t>(page.size()), ::write(client, page.data(), page.size()));
        ::close(client);
    }
    int m_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    std::string m_url;
};

const char kInjecting[] = "<qsResponse><credentials token=\"T0K3N&#13;&#10;X-Injected: yes\"><site id=\"S1\"/>"
                          "</credentials></qsResponse>";

std::string Seen(ORV_RESULT result)
{
    return std::to_string(result) + " '" + LastError() + "'";
}

} // namespace

TEST_F(HardeningTest, HostileOrUnluckySituationsHarmNothingAndExplainThemselves)
{
    const mode_t umask = ::umask(022);
    OrvaneTest::TempDirectory outside("orv-outside");
    OrvaneTest::WriteFileBytes(outside.File("victim"), "precious");
    ASSERT_EQ(0, ::chmod(m_dir.Path().c_str(), 0711)); // a caller without privileges still finds the extract
    PageServer pages;
    TestHttpServer server(
        OrvaneTest::Script()
            .Sequence("/api/2.0/auth/signin", {Response(200).Body(kInjecting), Response(200).Body(kSignInReply)})
            .On("GET", "/api/2.0/sites/S1/projects", Response::Redirect(302, pages.m_url)));
    const std::string extract = m_dir.File("x.qrx");
    const std::string failedOpen = "): Error: Failed to open file: " + extract + "\n";
    const std::string ok = "0 'untouched'";
    const std::string pid = "): pid=";
    const std::string unknown = ok + ok + ok + "3 'Unknown error'";
    const std::string log = "OrvaneSDKServer.log";
    const std::string log1 = "OrvaneSDKServer_1.log";
    const std::string fifo = m_dir.File("fifo");
    // Starts, signs in, publishes `extract` on a thread of its own (as user nobody if asked: the raw
    // system call changes that thread only) while the page is served.
    auto publish = [&](const std::function<void()>& during, bool unprivileged) {
        OrvaneTest::WriteFileBytes(extract, "qrx");
        Connection connection;
        std::string seen = Seen(OrvServerAPIInitialize());
        seen += Seen(connection.Create());
        seen += Seen(connection.Connect(server.BaseUrl(), "u", "secret"));
        const bool signedIn = seen == ok + ok + ok;
        EXPECT_EQ(0, ::chmod(extract.c_str(), unprivileged ? 0 : 0600));
        std::thread caller([&] {
            EXPECT_TRUE(!unprivileged || ::geteuid() != 0 || ::syscall(SYS_setresuid, -1, 65534, -1) == 0);
            seen += Seen(connection.Publish(extract, "Sales", "d", 0));
        });
        if (signedIn)
            pages.Serve(during);
        caller.join();
        return seen;
    };
    auto linkLogTo = [&](const std::string& target) {
        EXPECT_EQ(0, ::symlink(outside.File(target).c_str(), m_dir.File(log).c_str()));
        return Seen(OrvServerAPIInitialize());
    };
    // A named pipe at the log path, read by this process or by nobody: the log goes to the next name.
    auto pipeAtLog = [&](bool withReader) {
        EXPECT_EQ(0, ::mkfifo(m_dir.File(log).c_str(), 0600));
        const int reader = withReader ? ::open(m_dir.File(log).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC) : -1;
        EXPECT_EQ(withReader, reader >= 0);
        std::string seen = Seen(OrvServerAPIInitialize());
        seen += Seen(OrvServerAPICleanup());
        char byte = 0;
        if (reader >= 0 && ::read(reader, &byte, 1) > 0)
            seen += " and the reader got the log";
        if (reader >= 0)
            ::close(reader);
        return seen;
    };
    auto swapInPipe = [&] {
        EXPECT_TRUE(::mkfifo(fifo.c_str(), 0600) == 0 && ::rename(fifo.c_str(), extract.c_str()) == 0);
    };
    const struct {
        const char* situation;
        std::function<std::string()> act;
        std::string expected, logName, logLine;
    } rows[] = {
        {"link to a file of ours at the log path", [&] { return linkLogTo("victim"); }, ok, log1, pid},
        {"dangling link at the log path", [&] { return linkLogTo("new"); }, ok, log1, pid},
        {"named pipe nobody reads at the log path", [&] { return pipeAtLog(false); }, ok + ok, log1, pid},
        {"named pipe read by another at the log path", [&] { return pipeAtLog(true); }, ok + ok, log1, pid},
        {"umask 000, kept for the rows after it", [] { return ::umask(0), Seen(OrvServerAPIInitialize()); }, ok, log,
         pid},
        {"token with CR/LF: a malformed reply, signed out", [&] { return publish([] {}, false); },
         ok + ok + "300 ''402 'Connect must be called first'", log, "): Connecting: " + server.BaseUrl() + "\n"},
        {"pipe swapped in while the projects are paged", [&] { return publish(swapInPipe, false); }, unknown, log,
         failedOpen},
        {"file the caller may not read", [&] { return publish([] {}, true); }, unknown, log, failedOpen},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.situation);
        const auto before = Snapshot(outside.Path());
        OrvSetLastErrorMessage(L"untouched");
        EXPECT_EQ(row.expected, row.act());
        EXPECT_EQ(ORV_RESULT_Success, OrvServerAPICleanup());
        EXPECT_EQ(before, Snapshot(outside.Path()));
        const std::string text = OrvaneTest::ReadFileBytes(m_dir.File(row.logName));
        EXPECT_NE(std::string::npos, text.find(row.logLine)) << text;
        struct stat st {};
        EXPECT_EQ(0600u, ::stat(m_dir.File(row.logName).c_str(), &st) == 0 ? st.st_mode & 07777 : 0);
        for (const auto& entry : std::filesystem::directory_iterator(m_dir.Path()))
            std::filesystem::remove(entry.path());
    }
    for (const RecordedRequest& request : server.Requests(false))
        EXPECT_FALSE(request.HasHeader("X-Injected"));
    ::umask(umask);
}
