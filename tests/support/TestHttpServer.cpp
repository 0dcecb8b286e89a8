#include "tests/support/TestHttpServer.h"

#include <dirent.h>
#include <sys/stat.h>

#include <stdexcept>
#include <thread>

#ifndef ORV_PYTHON
#define ORV_PYTHON "python3"
#endif
#ifndef ORV_OPENSSL
#define ORV_OPENSSL "openssl"
#endif

namespace OrvaneTest {

namespace {

const std::chrono::milliseconds kStartLimit = std::chrono::seconds(10);
const std::chrono::milliseconds kPollStep = std::chrono::milliseconds(10);

std::string Python()
{
    std::string configured = ORV_PYTHON;
    return configured.empty() ? "python3" : configured;
}

std::vector<std::string> ReadLines(const std::string& path)
{
    std::vector<std::string> lines;
    std::string text = ReadFileBytes(path);
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find('\n', start);
        if (end == std::string::npos) {
            end = text.size();
        }
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

bool Exists(const std::string& path)
{
    struct stat info {};
    return stat(path.c_str(), &info) == 0;
}

}  // namespace

TestHttpServer::TestHttpServer(const Script& script, const ServerOptions& options) : m_dir("orv-http")
{
    Start(script.ToJson(), options);
}

TestHttpServer::TestHttpServer(const std::string& scriptJson, const ServerOptions& options) : m_dir("orv-http")
{
    Start(scriptJson, options);
}

TestHttpServer::~TestHttpServer()
{
    m_process.reset();
}

void TestHttpServer::Start(const std::string& scriptJson, const ServerOptions& options)
{
    WriteFileBytes(m_dir.File("script.json"), scriptJson);
    std::vector<std::string> argv = {Python(),
                                     std::string(ORV_SOURCE_DIR) + "/tests/support/http_test_server.py",
                                     "--script",
                                     m_dir.File("script.json"),
                                     "--record-dir",
                                     m_dir.File("requests"),
                                     "--port-file",
                                     m_dir.File("port")};
    if (options.tls) {
        m_tls = true;
        if (options.certificateFile.empty() != options.keyFile.empty()) {
            throw std::invalid_argument("TestHttpServer: give both a certificate and a key file, or neither");
        }
        m_certificateFile = options.certificateFile.empty() ? m_dir.File("cert.pem") : options.certificateFile;
        std::string key = options.keyFile.empty() ? m_dir.File("key.pem") : options.keyFile;
        argv.insert(argv.end(), {"--tls", "--cert", m_certificateFile, "--key", key, "--openssl", ORV_OPENSSL});
    }
    if (!options.storeBodies) {
        argv.push_back("--no-body-files");
    }
    if (options.idleTimeoutSeconds != 0) {
        argv.insert(argv.end(), {"--idle-timeout", std::to_string(options.idleTimeoutSeconds)});
    }
    m_process = std::make_unique<ChildProcess>(argv, m_dir.File("output.log"));

    for (auto waited = std::chrono::milliseconds(0); waited < kStartLimit; waited += kPollStep) {
        std::string port = ReadFileBytes(m_dir.File("port"));
        if (!port.empty()) {
            m_port = static_cast<unsigned short>(std::stoul(port));
            return;
        }
        if (!m_process->Running()) {
            throw std::runtime_error("test HTTP server " + m_process->ExitDescription() + " before listening:\n" +
                                     Output());
        }
        std::this_thread::sleep_for(kPollStep);
    }
    throw std::runtime_error("test HTTP server wrote no port within 10 s:\n" + Output());
}

std::string TestHttpServer::BaseUrl() const
{
    return std::string(m_tls ? "https" : "http") + "://127.0.0.1:" + std::to_string(m_port);
}

std::string TestHttpServer::Url(const std::string& pathAndQuery) const
{
    return BaseUrl() + pathAndQuery;
}

std::string TestHttpServer::CertificateFile() const
{
    return m_certificateFile;
}

std::size_t TestHttpServer::RequestCount() const
{
    // Records are numbered without gaps in order of arrival, but finished in any order.
    std::size_t count = 0;
    DIR* dir = opendir(m_dir.File("requests").c_str());
    if (dir == nullptr) {
        return 0;
    }
    while (dirent* entry = readdir(dir)) {
        std::string name = entry->d_name;
        if (name.size() > 5 && name.compare(name.size() - 5, 5, ".meta") == 0) {
            ++count;
        }
    }
    closedir(dir);
    return count;
}

std::vector<RecordedRequest> TestHttpServer::Requests(bool loadBodies) const
{
    const std::string directory = m_dir.File("requests");
    std::vector<RecordedRequest> requests;
    std::size_t remaining = RequestCount();
    // A request still being received has a head but no meta yet: it is skipped, not waited for.
    for (std::size_t index = 1; remaining > 0; ++index) {
        const std::string stem = directory + "/" + std::to_string(index);
        if (!Exists(stem + ".head")) {
            break;
        }
        if (Exists(stem + ".meta")) {
            requests.push_back(RecordedRequest::Load(directory, index, loadBodies));
            --remaining;
        }
    }
    return requests;
}

std::vector<RecordedRequest> TestHttpServer::WaitForRequests(std::size_t count, std::chrono::milliseconds limit) const
{
    for (auto waited = std::chrono::milliseconds(0); waited < limit && RequestCount() < count; waited += kPollStep) {
        std::this_thread::sleep_for(kPollStep);
    }
    return Requests();
}

std::vector<std::string> TestHttpServer::Events() const
{
    return ReadLines(m_dir.File("requests/events"));
}

std::size_t TestHttpServer::ConnectionCount() const
{
    std::size_t count = 0;
    for (const auto& line : Events()) {
        count += line.rfind("open ", 0) == 0 ? 1 : 0;
    }
    return count;
}

bool TestHttpServer::WaitForHold(std::size_t count, std::chrono::milliseconds limit) const
{
    for (auto waited = std::chrono::milliseconds(0);; waited += kPollStep) {
        std::size_t held = 0;
        for (const auto& line : Events()) {
            held += line.rfind("held ", 0) == 0 ? 1 : 0;
        }
        if (held >= count) {
            return true;
        }
        if (waited >= limit) {
            return false;
        }
        std::this_thread::sleep_for(kPollStep);
    }
}

void TestHttpServer::ReleaseHolds() const
{
    WriteFileBytes(m_dir.File("requests/release"), "");
}

std::string TestHttpServer::Output() const
{
    return ReadFileBytes(m_dir.File("output.log"));
}

}  // namespace OrvaneTest
