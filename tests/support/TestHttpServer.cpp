#include "tests/support/TestHttpServer.h"

#include <algorithm>
#include <filesystem>
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

}  // namespace

TestHttpServer::TestHttpServer(const Script& script, const ServerOptions& options) : m_dir("orv-http")
{
    WriteFileBytes(m_dir.File("script.json"), script.ToJson());
    std::vector<std::string> argv = {std::string(ORV_PYTHON).empty() ? "python3" : ORV_PYTHON,
                                     std::string(ORV_SOURCE_DIR) + "/tests/support/http_test_server.py",
                                     "--script",
                                     m_dir.File("script.json"),
                                     "--record-dir",
                                     m_dir.File("requests"),
                                     "--port-file",
                                     m_dir.File("port")};
    if (options.tls) {
        m_tls = true;
        m_certificateFile = m_dir.File("cert.pem");
        argv.insert(argv.end(), {"--tls", "--cert", m_certificateFile, "--key", m_dir.File("key.pem"), "--openssl",
                                 ORV_OPENSSL});
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

TestHttpServer::~TestHttpServer() = default;

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
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(m_dir.File("requests"), ignored)) {
        count += entry.path().extension() == ".meta" ? 1 : 0;
    }
    return count;
}

std::vector<RecordedRequest> TestHttpServer::Requests(bool loadBodies) const
{
    // A request still being received has a head but no meta yet: it is skipped, not waited for.
    std::vector<RecordedRequest> requests;
    const std::string stem = m_dir.File("requests/");
    for (std::size_t index = 1, left = RequestCount(); left > 0 && std::filesystem::exists(stem + std::to_string(index) + ".head");
         ++index) {
        if (std::filesystem::exists(stem + std::to_string(index) + ".meta")) {
            requests.push_back(RecordedRequest::Load(m_dir.File("requests"), index, loadBodies));
            --left;
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
    return SplitLines(ReadFileBytes(m_dir.File("requests/events")));
}

bool TestHttpServer::WaitForHold(std::size_t count, std::chrono::milliseconds limit) const
{
    for (auto waited = std::chrono::milliseconds(0);; waited += kPollStep) {
        const auto events = Events();
        if (std::count_if(events.begin(), events.end(), [](const std::string& e) { return e.rfind("held ", 0) == 0; }) >=
            static_cast<std::ptrdiff_t>(count)) {
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
