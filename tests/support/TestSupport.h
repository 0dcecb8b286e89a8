// The test peers and helpers, written once: scratch directories, child processes, the scripted HTTP(S) server,
// tinyproxy, the proxy environment, pattern bytes, the multipart layout, odd-chunk reads, waits, exported-API helpers.
#pragma once

#include <orvane/OrvaneServer.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <string.h>
#include <strings.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <random>
#include <sstream>
#include <thread>

namespace OrvaneTest {

// Whole, not a byte at a time: bodies of many MiB come through here, and a sanitizer checks every step of a loop.
inline std::string ReadFileBytes(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}
inline void WriteFileBytes(const std::string& path, const std::string& bytes)
{
    std::ofstream(path, std::ios::binary) << bytes;
}
// Lines without "\n" or "\r\n"; a last line without its newline is kept, so a torn write shows.
inline std::vector<std::string> SplitLines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line.substr(0, line.size() - (!line.empty() && line.back() == '\r')));
    return lines;
}
inline bool WaitUntil(const std::function<bool()>& done,
                      std::chrono::milliseconds limit = std::chrono::seconds(10)) // polls every 10 ms
{
    for (const auto end = std::chrono::steady_clock::now() + limit; !done();
         std::this_thread::sleep_for(std::chrono::milliseconds(10)))
        if (std::chrono::steady_clock::now() > end)
            return false;
    return true;
}
// Reproducible bytes, not periodic over any short stretch: a dropped or repeated block shows.
inline std::string Bytes(std::size_t size, unsigned seed)
{
    std::mt19937 generator(seed);
    std::string out(size, '\0');
    std::generate(out.begin(), out.end(), [&] { return static_cast<char>(generator()); });
    return out;
}
// The upload body with boundary `b` around the file's bytes: XML part "request_payload", then file part `field`.
inline std::pair<std::string, std::string> MultipartFraming(const std::string& b, const std::string& xml,
                                                            const std::string& field, const std::string& path)
{
    return {"--" + b + "\r\nContent-Disposition: form-data; name=\"request_payload\"\r\n\r\n" + xml + "\r\n--" + b +
                "\r\nContent-Disposition: form-data; name=\"" + field + "\"; filename=\"" + path +
                "\"\r\nContent-Type: application/octet-stream\r\n\r\n",
            "\r\n--" + b + "--\r\n"};
}
// Drains `read(buffer, size)` as libcurl would, in sizes that straddle part edges, until it gives 0.
template <class Read> std::string ReadInOddChunks(Read read)
{
    static const std::size_t kChunks[] = {1, 7, 3, 1000, 13, 65536};
    std::string out;
    std::vector<char> buffer(65536);
    for (std::size_t call = 0; call < 10000000; ++call) {
        const std::size_t want = kChunks[call % 6];
        const std::size_t got = read(buffer.data(), want);
        EXPECT_LE(got, want) << "a read gave more than asked for";
        if (got == 0 || got > want)
            return out;
        out.append(buffer.data(), got);
    }
    return out;
}

// A fresh directory under `parent`, $TMPDIR or /tmp, removed with its contents unless ORV_KEEP_TEST_FILES is set.
class TempDirectory {
  public:
    explicit TempDirectory(const std::string& prefix, const char* parent = std::getenv("TMPDIR"))
        : m_path(std::string(parent ? parent : "/tmp") + "/" + prefix + "-XXXXXX")
    {
        if (mkdtemp(m_path.data()) == nullptr)
            throw std::runtime_error("mkdtemp " + m_path);
    }
    ~TempDirectory()
    {
        if (std::getenv("ORV_KEEP_TEST_FILES") == nullptr)
            std::filesystem::remove_all(m_path, m_error);
    }
    TempDirectory(const TempDirectory&) = delete;
    const std::string& Path() const { return m_path; }
    std::string File(const std::string& name) const { return m_path + "/" + name; }

  private:
    std::string m_path;
    std::error_code m_error;
};

// A helper program, its output to a file: SIGTERM when the thread that started it ends; stopped and reaped at the end.
class ChildProcess {
  public:
    ChildProcess(std::vector<std::string> argv, const std::string& outputFile)
    {
        std::vector<char*> args(argv.size() + 1, nullptr);
        std::transform(argv.begin(), argv.end(), args.begin(), [](std::string& arg) { return arg.data(); });
        const int out = open(outputFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        const pid_t parent = getpid();
        if (out < 0 || (m_pid = fork()) < 0)
            throw std::runtime_error("cannot start " + argv[0]);
        if (m_pid == 0) { // async-signal-safe calls only until exec
            if (prctl(PR_SET_PDEATHSIG, SIGTERM) != 0 || getppid() != parent)
                _exit(126);
            dup2(out, 1);
            dup2(out, 2);
            close_range(3, ~0U, 0);
            signal(SIGTERM, SIG_DFL);
            sigset_t none;
            sigemptyset(&none);
            sigprocmask(SIG_SETMASK, &none, nullptr);
            if (argv[0].find('/') != std::string::npos)
                execv(args[0], args.data());
            else
                execvp(args[0], args.data());
            _exit(127);
        }
        close(out);
    }
    ~ChildProcess() { Stop(); }
    ChildProcess(const ChildProcess&) = delete;
    pid_t Pid() const { return m_pid; }
    bool Running() { return !(m_reaped = m_reaped || waitpid(m_pid, &m_status, WNOHANG) != 0); }
    int Status() const { return m_reaped ? m_status : -1; } // a wait status once the process has ended
    void Stop(std::chrono::milliseconds grace = std::chrono::seconds(5)) noexcept
    {
        if (!Running())
            return;
        kill(m_pid, SIGTERM);
        if (WaitUntil([this] { return !Running(); }, grace))
            return;
        kill(m_pid, SIGKILL);
        waitpid(m_pid, &m_status, 0);
        m_reaped = true;
    }

  private:
    pid_t m_pid = -1;
    bool m_reaped = false;
    int m_status = 0;
};

// Starts a Python peer that writes its port to dir/port once it listens ("{base}" in a Location is its own URL).
// The peers need the standard library only: without site packages they start sooner.
inline unsigned short StartPeer(std::unique_ptr<ChildProcess>& process, const TempDirectory& dir,
                                const std::string& script, const std::vector<std::string>& arguments)
{
    std::vector<std::string> argv{ORV_PYTHON, "-S", script};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    process = std::make_unique<ChildProcess>(argv, dir.File("output"));
    if (!WaitUntil([&] { return !ReadFileBytes(dir.File("port")).empty() || !process->Running(); },
                   std::chrono::seconds(20)) ||
        !process->Running())
        throw std::runtime_error(script + " did not start: " + ReadFileBytes(dir.File("output")));
    return static_cast<unsigned short>(std::stoul(ReadFileBytes(dir.File("port"))));
}

// One scripted answer of the test server (http_test_server.py names every field). Strings are bytes.
class Response {
  public:
    explicit Response(int status = 200) { Set("status", std::to_string(status)); }
    static Response Redirect(int status, const std::string& location)
    {
        return Response(status).Header("Location", location);
    }
    Response& Header(const std::string& name, const std::string& value)
    {
        m_headers += (m_headers.empty() ? "[" : ", [") + Json(name) + ", " + Json(value) + "]";
        return *this;
    }
    Response& Body(const std::string& bytes) { return Set("body", Json(bytes)); }
    // Answers 401 with one challenge until a request brings these Basic credentials.
    Response& RequireBasicAuth(const std::string& user, const std::string& password,
                               const std::string& challenge = "Basic realm=\"orvane-test\"")
    {
        return Set("auth", "{\"user\": " + Json(user) + ", \"password\": " + Json(password) +
                               ", \"challenge\": " + Json(challenge) + "}");
    }
    Response& AnswerBeforeBody() { return Set("read_body", "0"); }
    Response& ReadBodyBytes(std::uint64_t count) { return Set("read_body", std::to_string(count)); }
    Response& WithoutContinue() { return Set("continue", "\"skip\""); }
    // Stops reading at `bytes` body bytes until TestHttpServer::ReleaseHolds() or `limitSeconds`.
    Response& HoldBodyAt(std::uint64_t bytes, unsigned limitSeconds = 30)
    {
        return Set("hold_at", std::to_string(bytes)).Set("hold_limit", std::to_string(limitSeconds));
    }
    // Waits `seconds` after the request before answering.
    Response& AnswerAfter(double seconds) { return Set("answer_after", std::to_string(seconds)); }
    // Sends the body one byte every `seconds`.
    Response& DripBody(double seconds) { return Set("drip", std::to_string(seconds)); }
    Response& CloseWithoutAnswer() { return Set("fault", "\"close\""); }
    Response& ResetWithoutAnswer() { return Set("fault", "\"reset\""); }
    Response& TruncateBody(std::size_t sentBytes)
    {
        return Set("fault", "\"truncate\"").Set("truncate_at", std::to_string(sentBytes));
    }
    std::string ToJson() const { return "{\"headers\": [" + m_headers + "]" + m_fields + "}"; }
    // A JSON string of bytes; bytes from 0x80 up pass unchanged (the server reads Latin-1). The runs between
    // escapes are found and appended whole: a loop over bodies of many MiB takes seconds under the sanitizers.
    static std::string Json(const std::string& bytes)
    {
        // Every control byte but NUL, at which strcspn stops as well.
        static const char escapedBytes[] = "\"\\\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\x0b\x0c\x0d\x0e\x0f\x10\x11"
                                           "\x12\x13\x14\x15\x16\x17\x18\x19\x1a\x1b\x1c\x1d\x1e\x1f";
        std::string out = "\"";
        char escaped[8];
        for (std::size_t at = 0;;) {
            const std::size_t run = strcspn(bytes.c_str() + at, escapedBytes);
            out.append(bytes, at, run);
            at += run;
            if (at == bytes.size())
                return out + "\"";
            std::snprintf(escaped, 8, "\\u%04x", static_cast<unsigned char>(bytes[at++]));
            out += escaped;
        }
    }

  private:
    Response& Set(const std::string& key, const std::string& json)
    {
        m_fields += ", \"" + key + "\": " + json;
        return *this;
    }
    std::string m_headers, m_fields;
};

// Routes: the first whose method (if any) and path ('?': the whole target) match answers in turn; no route: 404.
class Script {
  public:
    Script& On(const std::string& path, const Response& response) { return Sequence(path, {response}); }
    Script& On(const std::string& method, const std::string& path, const Response& response)
    {
        return Sequence(path, {response}, method);
    }
    Script& Sequence(const std::string& path, const std::vector<Response>& responses, const std::string& method = {})
    {
        m_json += std::string(m_json.empty() ? "" : ",\n") + "{\"path\": " + Response::Json(path) +
                  ", \"method\": " + Response::Json(method) + ", \"responses\": [";
        for (std::size_t i = 0; i < responses.size(); ++i)
            m_json += (i ? ", " : "") + responses[i].ToJson();
        m_json += "]}";
        return *this;
    }
    std::string ToJson() const { return "[" + m_json + "]\n"; }

  private:
    std::string m_json;
};

struct RecordedRequest {                                      // one request as the test server received it
    std::string method, target, head, body;                   // head: request and header lines through the blank line
    std::vector<std::pair<std::string, std::string>> headers; // arrival order
    bool bodyComplete = false;
    bool continueSent = false;
    std::uint64_t bodyLength = 0;
    std::string bodySha256;
    int status = 0; // of the answer; 0 when the server closed without one

    std::optional<std::string> HeaderValue(const std::string& name) const
    {
        for (const auto& [n, v] : headers)
            if (strcasecmp(n.c_str(), name.c_str()) == 0)
                return v;
        return std::nullopt;
    }
    bool HasHeader(const std::string& name) const { return HeaderValue(name).has_value(); }
    std::string Path() const { return target.substr(0, target.find('?')); }
    static RecordedRequest Load(const std::string& stem, bool loadBody)
    {
        RecordedRequest r;
        std::istringstream meta(ReadFileBytes(stem + ".meta"));
        int complete = 0;
        int continued = 0;
        meta >> r.status >> r.bodyLength >> complete >> continued >> r.bodySha256;
        r.bodyComplete = complete, r.continueSent = continued;
        const auto lines = SplitLines(r.head = ReadFileBytes(stem + ".head"));
        std::istringstream(lines.at(0)) >> r.method >> r.target;
        for (std::size_t i = 1; i < lines.size() && !lines[i].empty(); ++i) {
            const std::size_t colon = lines[i].find(':');
            const std::size_t start = lines[i].find_first_not_of(" \t", colon + 1);
            r.headers.emplace_back(lines[i].substr(0, colon), start == std::string::npos ? "" : lines[i].substr(start));
        }
        r.body = loadBody ? ReadFileBytes(stem + ".body") : "";
        return r;
    }
};

struct ServerOptions {
    bool tls = false;        // a self-signed certificate for 127.0.0.1 (CertificateFile())
    bool storeBodies = true; // false: only the length, for uploads of GiBs
};

// The scripted server on 127.0.0.1. A request answered early or abandoned by the client is recorded later
// (WaitForRequests).
class TestHttpServer {
  public:
    explicit TestHttpServer(const Script& script, const ServerOptions& options = {})
        : m_dir("orv-http"), m_tls(options.tls)
    {
        WriteFileBytes(m_dir.File("script.json"), script.ToJson());
        m_port = StartPeer(m_process, m_dir, ORV_SOURCE_DIR "/tests/support/http_test_server.py",
                           {m_dir.Path(), m_tls ? ORV_OPENSSL : "", options.storeBodies ? "1" : "0"});
    }
    unsigned short Port() const { return m_port; }
    std::string BaseUrl() const
    {
        return std::string(m_tls ? "https" : "http") + "://127.0.0.1:" + std::to_string(m_port);
    }
    std::string Url(const std::string& pathAndQuery) const { return BaseUrl() + pathAndQuery; }
    std::string CertificateFile() const { return m_tls ? m_dir.File("cert.pem") : ""; }
    // The finished requests in order of arrival; one still being received is skipped.
    std::vector<RecordedRequest> Requests(bool loadBodies = true) const
    {
        std::vector<RecordedRequest> requests;
        for (std::size_t i = 1; std::filesystem::exists(m_dir.File(std::to_string(i) + ".head")); ++i)
            if (std::filesystem::exists(m_dir.File(std::to_string(i) + ".meta")))
                requests.push_back(RecordedRequest::Load(m_dir.File(std::to_string(i)), loadBodies));
        return requests;
    }
    std::size_t RequestCount() const { return Requests(false).size(); }
    bool WaitForHold() const
    {
        return WaitUntil([&] { return !ReadFileBytes(m_dir.File("held")).empty(); });
    }
    void ReleaseHolds() const { WriteFileBytes(m_dir.File("release"), ""); }
    std::vector<RecordedRequest> WaitForRequests(std::size_t count, bool loadBodies = true) const // for 10 s at most
    {
        WaitUntil([&] { return RequestCount() >= count; });
        return Requests(loadBodies);
    }

  private:
    TempDirectory m_dir;
    bool m_tls;
    std::unique_ptr<ChildProcess> m_process;
    unsigned short m_port = 0;
};

// Sets http_proxy and https_proxy to `proxyUrl` and no_proxy to `noProxy` (empty: unset) and unsets the
// other variants; Qt reads them afresh at every query. Every test case runs in a process of its own.
inline void SetProxyEnvironment(const std::string& proxyUrl, const std::string& noProxy = {})
{
    for (const char* name :
         {"http_proxy", "https_proxy", "no_proxy", "all_proxy", "HTTP_PROXY", "HTTPS_PROXY", "NO_PROXY", "ALL_PROXY"})
        unsetenv(name);
    for (const auto& [name, value] :
         {std::pair("http_proxy", proxyUrl), {"https_proxy", proxyUrl}, {"no_proxy", noProxy}})
        if (!value.empty())
            setenv(name, value.c_str(), 1);
}

struct ProxyOptions { // non-empty: Basic credentials the proxy demands (no blanks or quotes)
    std::string user, password;
};

// tinyproxy on a free 127.0.0.1 port. A plain request it forwards carries "Via: 1.1 orv-test-proxy
// (tinyproxy/...)"; an https one is tunnelled ("CONNECT 127.0.0.1:port HTTP/1.1" in RequestLines()).
class TinyProxy {
  public:
    explicit TinyProxy(const ProxyOptions& options = {}) : m_dir("orv-proxy")
    {
        for (int attempt = 0; attempt < 5 && m_port == 0; ++attempt) { // a free port, lost to another process at times
            const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
            sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
            socklen_t length = sizeof address;
            bind(fd, reinterpret_cast<sockaddr*>(&address), length);
            getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
            close(fd);
            WriteFileBytes(
                m_dir.File("conf"),
                "Port " + std::to_string(ntohs(address.sin_port)) + "\nListen 127.0.0.1\nTimeout 60\nLogFile \"" +
                    m_dir.File("log") + "\"\nLogLevel Info\nAllow 127.0.0.1\nViaProxyName \"orv-test-proxy\"\n" +
                    (options.user.empty() ? "" : "BasicAuth " + options.user + " " + options.password + "\n"));
            std::remove(m_dir.File("log").c_str());
            m_process = std::make_unique<ChildProcess>(
                std::vector<std::string>{ORV_TINYPROXY, "-d", "-c", m_dir.File("conf")}, m_dir.File("out"));
            if (WaitUntil([&] {
                    return Log().find("Accepting connections") != std::string::npos || !m_process->Running();
                }) &&
                m_process->Running())
                m_port = ntohs(address.sin_port);
        }
        if (m_port == 0)
            throw std::runtime_error("tinyproxy did not start: " + ReadFileBytes(m_dir.File("out")) + Log());
    }
    std::string Url() const { return "http://127.0.0.1:" + std::to_string(m_port); }
    std::vector<std::string> RequestLines() const
    {
        return Grep("]: Request (file descriptor ");
    } // as sent, refused ones too
    std::size_t ForwardedConnections() const { return Grep("Established connection to host").size(); }
    std::string Log() const { return ReadFileBytes(m_dir.File("log")); }

  private:
    std::vector<std::string> Grep(const std::string& marker) const
    {
        std::vector<std::string> lines;
        for (const auto& line : SplitLines(Log()))
            if (line.find(marker) != std::string::npos)
                lines.push_back(line.substr(line.find("): ") + 3));
        return lines;
    }
    TempDirectory m_dir;
    std::unique_ptr<ChildProcess> m_process;
    unsigned short m_port = 0;
};

using Utf16 = std::basic_string<unsigned short>;
inline Utf16 U(const std::string& ascii)
{
    return Utf16(ascii.begin(), ascii.end());
}
inline std::string LastError()
{
    return std::string(OrvGetLastErrorMessage(), OrvGetLastErrorMessage() + wcslen(OrvGetLastErrorMessage()));
}

// A connection handle, closed when it leaves its scope.
class Connection {
  public:
    Connection() = default;
    ~Connection() { OrvServerConnectionClose(m_handle); }
    Connection(const Connection&) = delete;
    ORV_RESULT Create() { return OrvServerConnectionCreate(&m_handle); }
    ORV_RESULT Connect(const std::string& url, const std::string& user, const std::string& password,
                       const std::string& site = "")
    {
        return OrvServerConnectionConnect(m_handle, U(url).c_str(), U(user).c_str(), U(password).c_str(),
                                          U(site).c_str());
    }
    ORV_RESULT Publish(const std::string& path, const std::string& project, const std::string& name, int overwrite)
    {
        return OrvServerConnectionPublishExtract(m_handle, U(path).c_str(), U(project).c_str(), U(name).c_str(),
                                                 overwrite);
    }
    ORV_RESULT SetProxyCredentials(const std::string& user, const std::string& password)
    {
        return OrvServerConnectionSetProxyCredentials(m_handle, U(user).c_str(), U(password).c_str());
    }
    ORV_RESULT Close() { return OrvServerConnectionClose(std::exchange(m_handle, nullptr)); }
    void* Handle() const { return m_handle; }

  private:
    void* m_handle = nullptr;
};

// tools/orvane-reference-server on loopback; by default user "demo" / "demo-password", project "Samples" on page 3.
class ReferenceServer {
  public:
    explicit ReferenceServer(const std::string& configJson = "", const std::vector<std::string>& options = {})
        : m_dir("orv-reference")
    {
        WriteFileBytes(m_dir.File("config.json"), configJson);
        std::vector<std::string> argv{"--host=127.0.0.1", "--port=0", "--port-file=" + m_dir.File("port"),
                                      "--data-dir=" + m_dir.File("data"), "--quiet"};
        if (!configJson.empty())
            argv.insert(argv.end(), {"--config", m_dir.File("config.json")});
        argv.insert(argv.end(), options.begin(), options.end());
        m_port = StartPeer(m_process, m_dir, ORV_SOURCE_DIR "/tools/orvane-reference-server", argv);
    }
    std::string Url() const { return "http://127.0.0.1:" + std::to_string(m_port); }
    // The server's counters from GET /__stats: sessions, requests, connections, open (-1: no answer).
    long Stat(const std::string& name) const
    {
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const timeval limit{10, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        sockaddr_in address{AF_INET, htons(static_cast<unsigned short>(m_port)), {htonl(INADDR_LOOPBACK)}, {}};
        std::string reply;
        if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
            const std::string request = "GET /__stats HTTP/1.0\r\n\r\n";
            send(fd, request.data(), request.size(), MSG_NOSIGNAL);
            char buffer[4096];
            for (ssize_t got; (got = recv(fd, buffer, sizeof buffer, 0)) > 0;)
                reply.append(buffer, static_cast<std::size_t>(got));
        }
        close(fd);
        const std::size_t at = reply.find("\n" + name + " ");
        return at == std::string::npos ? -1 : std::stol(reply.substr(at + name.size() + 2));
    }
    // The bytes stored for data source `name` in `project`, on any site.
    std::optional<std::string> Stored(const std::string& project, const std::string& name) const
    {
        std::error_code error;
        for (const auto& site : std::filesystem::directory_iterator(m_dir.File("data"), error))
            if (site.path().filename().string()[0] != '.' &&
                std::filesystem::is_regular_file(site.path() / project / (name + ".qrx")))
                return ReadFileBytes((site.path() / project / (name + ".qrx")).string());
        return std::nullopt;
    }

  private:
    TempDirectory m_dir;
    std::unique_ptr<ChildProcess> m_process;
    int m_port = 0;
};

const char kToken[] = "T0K3N";
const char kSignInReply[] = "<qsResponse><credentials token=\"T0K3N\"><site id=\"S1\" contentUrl=\"\"/><user "
                            "id=\"U\"/></credentials></qsResponse>";
const char kProjectsReply[] = "<qsResponse><pagination pageNumber=\"1\" pageSize=\"100\" totalAvailable=\"1\"/>"
                              "<projects><project name=\"Sales\" id=\"P1\"/></projects></qsResponse>";
const char kPublishReply[] = "<qsResponse><datasource name=\"d\"><project id=\"P1\"/></datasource></qsResponse>";
const char kUploadPath[] = "/api/2.0/sites/S1/datasources";

// Sign-in and one project page ("Sales" = P1) answer as above; uploads get `uploads` in turn.
inline Script PublishScript(const std::vector<Response>& uploads)
{
    return Script()
        .On("POST", "/api/2.0/auth/signin", Response(200).Body(kSignInReply))
        .On("GET", "/api/2.0/sites/S1/projects", Response(200).Body(kProjectsReply))
        .Sequence(kUploadPath, uploads, "POST");
}
inline std::vector<RecordedRequest> Uploads(std::vector<RecordedRequest> r) // the POSTs but the sign-in
{
    const auto notUpload = [](const RecordedRequest& q) {
        return q.method != "POST" || q.Path() == "/api/2.0/auth/signin";
    };
    r.erase(std::remove_if(r.begin(), r.end(), notUpload), r.end());
    return r;
}
// The upload body PublishScript's server expects around the file: data source `name` of project P1.
inline std::pair<std::string, std::string> Framing(const std::string& boundary, const std::string& name,
                                                   const std::string& path)
{
    return MultipartFraming(
        boundary, "<qsRequest><datasource name=\"" + name + "\" ><project id=\"P1\" /></datasource></qsRequest>",
        "orvane_datasource", path);
}
inline std::uint64_t BodyLength(const std::string& name, const std::string& path, std::uint64_t fileSize)
{
    const auto framing = Framing(std::string(40, '-'), name, path);
    return framing.first.size() + fileSize + framing.second.size();
}
inline std::string BoundaryOf(const RecordedRequest& upload)
{
    return upload.HeaderValue("Content-Type").value_or("").substr(26);
}

// Each test with its log in a scratch directory and no proxy; Start() starts the library.
class LibraryTest : public ::testing::Test {
  protected:
    LibraryTest()
    {
        SetProxyEnvironment("", "127.0.0.1,localhost");
        setenv("ORV_SDK_LOGDIR", m_dir.Path().c_str(), 1);
    }
    void TearDown() override { OrvServerAPICleanup(); }
    void Start() { ASSERT_EQ(ORV_RESULT_Success, OrvServerAPIInitialize()); }
    std::string Extract(const std::string& name, const std::string& bytes)
    {
        WriteFileBytes(m_dir.File(name), bytes);
        return m_dir.File(name);
    }
    std::string StopAndReadLog() // Cleanup writes every queued line before it returns
    {
        EXPECT_EQ(ORV_RESULT_Success, OrvServerAPICleanup());
        return ReadFileBytes(m_dir.File("OrvaneSDKServer.log"));
    }
    TempDirectory m_dir{"orv-capi"};
};
class StartedTest : public LibraryTest {
  protected:
    void SetUp() override { Start(); }
};

} // namespace OrvaneTest
namespace CapiTest {
using namespace OrvaneTest;
} // namespace CapiTest
