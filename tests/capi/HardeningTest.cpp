// Hostile and unlucky situations met through the exported functions: links
// planted at the log's names, a permissive umask, a sign-in reply that would
// inject header lines, an extract swapped for a pipe or unreadable to the
// caller. Each row: what the caller sees, the log line that explains it, a
// log of mode 0600, and nothing changed outside the log directory.
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

// Every entry of `dir` with its type, mode and bytes.
std::map<std::string, std::string> Snapshot(const std::string& dir)
{
    std::map<std::string, std::string> entries;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        struct stat st {};
        ::lstat(entry.path().c_str(), &st);
        entries[entry.path().string()] = std::to_string(st.st_mode) + ":" + OrvaneTest::ReadFileBytes(entry.path());
    }
    return entries;
}

// A loopback listener that answers one GET with the project page, running
// `during` after the request has arrived and before the page goes out.
class PageServer {
public:
    PageServer() : m_fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        auto* generic = reinterpret_cast<sockaddr*>(&address);
        EXPECT_TRUE(::bind(m_fd, generic, length) == 0 && ::listen(m_fd, 4) == 0 &&
                    ::getsockname(m_fd, generic, &length) == 0);
        m_url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/page";
    }
    ~PageServer() { ::close(m_fd); }
    const std::string& Url() const { return m_url; }
    void Serve(const std::function<void()>& during) const
    {
        pollfd listening{m_fd, POLLIN, 0};
        if (::poll(&listening, 1, 10000) != 1)
            return;
        const int client = ::accept(m_fd, nullptr, nullptr);
        std::string head(4096, '\0');
        pollfd readable{client, POLLIN, 0};
        for (std::size_t got = 0; head.find("\r\n\r\n") == std::string::npos && ::poll(&readable, 1, 10000) == 1;) {
            const ssize_t n = ::read(client, &head[got], head.size() - got);
            got += n > 0 ? static_cast<std::size_t>(n) : head.size();
        }
        during();
        const std::string page = std::string("HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: ") +
                                 std::to_string(sizeof kProjectsReply - 1) + "\r\n\r\n" + kProjectsReply;
        EXPECT_EQ(static_cast<ssize_t>(page.size()), ::write(client, page.data(), page.size()));
        ::close(client);
    }

private:
    int m_fd;
    std::string m_url;
};

std::string Seen(ORV_RESULT result) { return std::to_string(result) + " '" + LastError() + "'"; }

}  // namespace

TEST_F(HardeningTest, HostileOrUnluckySituationsHarmNothingAndExplainThemselves)
{
    OrvaneTest::TempDirectory outside("orv-outside");
    OrvaneTest::WriteFileBytes(outside.File("victim"), "precious");
    ASSERT_EQ(0, ::chmod(m_dir.Path().c_str(), 0711));  // a caller without privileges still finds the extract
    PageServer pages;
    TestHttpServer server(
        OrvaneTest::Script()
            .Sequence("/api/2.0/auth/signin",
                      {Response(200).Body("<qsResponse><credentials token=\"T0K3N&#13;&#10;X-Injected: yes\">"
                                          "<site id=\"S1\"/></credentials></qsResponse>"),
                       Response(200).Body(kSignInReply)},
                      "POST")
            .On("GET", "/api/2.0/sites/S1/projects", Response::Redirect(302, pages.Url())));
    const std::string extract = m_dir.File("x.qrx");
    const std::string failedOpen = "): Error: Failed to open file: " + extract + "\n";
    // Signs in and publishes `extract` on a thread of its own (as user nobody if asked) while the page is served.
    auto publish = [&](const std::function<void()>& during, bool unprivileged) {
        Connection connection;
        std::string seen = Seen(connection.Create());
        seen += Seen(connection.Connect(server.BaseUrl(), "u", "secret"));
        const bool signedIn = seen == "0 'untouched'0 'untouched'";
        std::thread caller([&] {
            if (unprivileged && ::geteuid() == 0) {
                ASSERT_EQ(0, ::syscall(SYS_setresuid, -1, 65534, -1));  // this thread only
            }
            seen += Seen(connection.Publish(extract, "Sales", "d", 0));
        });
        if (signedIn)
            pages.Serve(during);
        caller.join();
        return seen;
    };
    auto writeExtract = [&] { OrvaneTest::WriteFileBytes(extract, "qrx"); };
    const std::string pid = "): pid=", started = "0 'untouched'", published = "0 'untouched'0 'untouched'";
    const struct {
        const char* situation;
        mode_t umask;
        std::function<void()> prepare;
        std::function<std::string()> act;
        std::string expected, logName, logLine;
    } rows[] = {
        {"link to a file of ours at the log path", 022,
         [&] { ASSERT_EQ(0, ::symlink(outside.File("victim").c_str(), m_dir.File("OrvaneSDKServer.log").c_str())); },
         [] { return ""; }, started, "OrvaneSDKServer_1.log", pid},
        {"dangling link at the log path", 022,
         [&] { ASSERT_EQ(0, ::symlink(outside.File("new").c_str(), m_dir.File("OrvaneSDKServer.log").c_str())); },
         [] { return ""; }, started, "OrvaneSDKServer_1.log", pid},
        {"umask 000", 0, [] {}, [] { return ""; }, started, "OrvaneSDKServer.log", pid},
        {"token with CR/LF: a malformed reply, signed out", 022, writeExtract,
         [&] { return publish([] {}, false); },
         started + published.substr(0, 13) + "300 ''402 'Connect must be called first'", "OrvaneSDKServer.log",
         "): Connecting: " + server.BaseUrl() + "\n"},
        {"pipe swapped in while the projects are paged", 022, writeExtract,
         [&] {
             const std::string fifo = m_dir.File("fifo");
             EXPECT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
             return publish([&] { EXPECT_EQ(0, ::rename(fifo.c_str(), extract.c_str())); }, false);
         },
         started + published + "3 'Unknown error'", "OrvaneSDKServer.log", failedOpen},
        {"file the caller may not read", 022, [&] { writeExtract(), ::chmod(extract.c_str(), 0); },
         [&] { return publish([] {}, true); }, started + published + "3 'Unknown error'", "OrvaneSDKServer.log",
         failedOpen},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.situation);
        row.prepare();
        const auto before = Snapshot(outside.Path());
        OrvSetLastErrorMessage(L"untouched");
        const mode_t saved = ::umask(row.umask);
        std::string seen = Seen(OrvServerAPIInitialize());
        ::umask(saved);
        seen += row.act();
        EXPECT_EQ(row.expected, seen);
        EXPECT_EQ(ORV_RESULT_Success, OrvServerAPICleanup());
        EXPECT_EQ(before, Snapshot(outside.Path()));
        const std::string log = OrvaneTest::ReadFileBytes(m_dir.File(row.logName));
        EXPECT_NE(std::string::npos, log.find(row.logLine)) << log;
        EXPECT_EQ(std::string::npos, log.find("secret"));
        struct stat st {};
        EXPECT_EQ(0, ::stat(m_dir.File(row.logName).c_str(), &st));
        EXPECT_EQ(0600u, st.st_mode & 07777);
        for (const auto& entry : std::filesystem::directory_iterator(m_dir.Path()))
            std::filesystem::remove(entry.path());
    }
    for (const RecordedRequest& request : server.Requests(false))
        EXPECT_FALSE(request.HasHeader("X-Injected"));
}
