// What the exported-API tests share: UTF-16 text as a caller passes it, the
// last error as narrow text, a started library with its log in a scratch
// directory and no proxy, the reference server as a child process, and a
// scripted server that signs in and lists one project so that a test's own
// steps meet the upload.
#pragma once

#include <orvane/OrvaneServer.h>

#include "tests/support/ChildProcess.h"
#include "tests/support/HttpScript.h"
#include "tests/support/ProxyEnvironment.h"
#include "tests/support/RecordedRequest.h"
#include "tests/support/TestHttpServer.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace CapiTest {

using Utf16 = std::basic_string<unsigned short>;
using OrvaneTest::RecordedRequest;
using OrvaneTest::Response;
using OrvaneTest::TestHttpServer;

inline Utf16 U(const std::string& ascii) { return Utf16(ascii.begin(), ascii.end()); }

inline std::string LastError()
{
    std::string out;
    for (const wchar_t* p = OrvGetLastErrorMessage(); *p != L'\0'; ++p)
        out.push_back(static_cast<char>(*p));
    return out;
}

// Reproducible bytes, so that a mismatch can be told from a truncation.
inline std::string Bytes(std::size_t size, unsigned seed)
{
    std::mt19937 generator(seed);
    std::string out(size, '\0');
    for (char& c : out)
        c = static_cast<char>(generator() & 0xFF);
    return out;
}

// A connection handle, closed when it leaves its scope.
class Connection {
public:
    Connection() = default;
    ~Connection()
    {
        if (m_handle != nullptr)
            OrvServerConnectionClose(m_handle);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    ORV_RESULT Create() { return OrvServerConnectionCreate(&m_handle); }
    ORV_RESULT Connect(const std::string& url, const std::string& user, const std::string& password)
    {
        return OrvServerConnectionConnect(m_handle, U(url).c_str(), U(user).c_str(), U(password).c_str(),
                                          U("").c_str());
    }
    ORV_RESULT Publish(const std::string& path, const std::string& project, const std::string& name, int overwrite)
    {
        return OrvServerConnectionPublishExtract(m_handle, U(path).c_str(), U(project).c_str(), U(name).c_str(),
                                                 overwrite);
    }
    ORV_RESULT Close()
    {
        void* handle = m_handle;
        m_handle = nullptr;
        return OrvServerConnectionClose(handle);
    }
    void* Handle() const { return m_handle; }

private:
    void* m_handle = nullptr;
};

// tools/orvane-reference-server on an ephemeral loopback port; without a
// configuration: user "demo" / "demo-password", default site, project
// "Samples" on page 3.
class ReferenceServer {
public:
    explicit ReferenceServer(const std::string& configJson = "") : m_dir("orv-capi-reference")
    {
        std::vector<std::string> argv{ORV_PYTHON, std::string(ORV_SOURCE_DIR) + "/tools/orvane-reference-server",
                                      "--host", "127.0.0.1", "--port", "0", "--port-file", m_dir.File("port"),
                                      "--data-dir", m_dir.File("data"), "--quiet"};
        if (!configJson.empty()) {
            OrvaneTest::WriteFileBytes(m_dir.File("config.json"), configJson);
            argv.insert(argv.end(), {"--config", m_dir.File("config.json")});
        }
        m_process = std::make_unique<OrvaneTest::ChildProcess>(argv, m_dir.File("output"));
        for (int attempt = 0; attempt < 2000 && m_port == 0; ++attempt) {  // 20 s at most
            std::ifstream portFile(m_dir.File("port"));
            if (!(portFile >> m_port)) {
                m_port = 0;
                if (!m_process->Running())
                    break;
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
        }
        if (m_port == 0)
            throw std::runtime_error("reference server did not start: " + m_process->ExitDescription() + "\n" +
                                     OrvaneTest::ReadFileBytes(m_dir.File("output")));
    }
    ~ReferenceServer() { m_process->Stop(); }

    std::string Url() const { return "http://127.0.0.1:" + std::to_string(m_port); }
    // The bytes stored for data source `name` in `project`; nothing when there are none.
    std::optional<std::string> Stored(const std::string& project, const std::string& name) const
    {
        std::error_code error;
        for (const auto& site : std::filesystem::directory_iterator(m_dir.File("data"), error)) {
            const std::filesystem::path file = site.path() / project / (name + ".qrx");
            if (site.path().filename().string().front() != '.' && std::filesystem::is_regular_file(file))
                return OrvaneTest::ReadFileBytes(file.string());
        }
        return std::nullopt;
    }

private:
    OrvaneTest::TempDirectory m_dir;
    std::unique_ptr<OrvaneTest::ChildProcess> m_process;
    int m_port = 0;
};

const char kToken[] = "T0K3N";
const char kSignInReply[] =
    "<qsResponse><credentials token=\"T0K3N\"><site id=\"S1\" contentUrl=\"\"/><user id=\"U\"/></credentials>"
    "</qsResponse>";
const char kProjectsReply[] = "<qsResponse><pagination pageNumber=\"1\" pageSize=\"100\" totalAvailable=\"1\"/>"
                              "<projects><project name=\"Sales\" id=\"P1\"/></projects></qsResponse>";
const char kPublishReply[] = "<qsResponse><datasource name=\"d\"><project id=\"P1\"/></datasource></qsResponse>";
const char kUploadPath[] = "/api/2.0/sites/S1/datasources";

// Sign-in and the project page answer as above; uploads get `uploads` in turn, the last repeating.
inline OrvaneTest::Script PublishScript(const std::vector<Response>& uploads)
{
    return OrvaneTest::Script()
        .On("POST", "/api/2.0/auth/signin", Response(200).Body(kSignInReply))
        .On("GET", "/api/2.0/sites/S1/projects", Response(200).Body(kProjectsReply))
        .Sequence(kUploadPath, uploads, "POST");
}

inline std::vector<RecordedRequest> Uploads(const std::vector<RecordedRequest>& requests)
{
    std::vector<RecordedRequest> uploads;
    for (const RecordedRequest& request : requests)
        if (request.method == "POST" && request.Path() != "/api/2.0/auth/signin")
            uploads.push_back(request);
    return uploads;
}

// The upload body before the file's bytes, and after them, for data source `name` of project P1.
inline std::pair<std::string, std::string> Framing(const std::string& boundary, const std::string& name,
                                                   const std::string& path)
{
    return {"--" + boundary + "\r\nContent-Disposition: form-data; name=\"request_payload\"\r\n\r\n" +
                "<qsRequest><datasource name=\"" + name + "\" ><project id=\"P1\" /></datasource></qsRequest>\r\n--" +
                boundary + "\r\nContent-Disposition: form-data; name=\"orvane_datasource\"; filename=\"" + path +
                "\"\r\nContent-Type: application/octet-stream\r\n\r\n",
            "\r\n--" + boundary + "--\r\n"};
}
inline std::uint64_t BodyLength(const std::string& name, const std::string& path, std::uint64_t fileSize)
{
    const auto framing = Framing(std::string(40, '-'), name, path);
    return framing.first.size() + fileSize + framing.second.size();
}
inline std::string BoundaryOf(const RecordedRequest& request)
{
    const std::string type = request.HeaderValue("Content-Type").value_or("");
    const std::string prefix = "multipart/mixed; boundary=";
    return type.compare(0, prefix.size(), prefix) == 0 ? type.substr(prefix.size()) : std::string();
}

// Each test with its log in a scratch directory and no proxy; Start() starts the library.
class LibraryTest : public ::testing::Test {
protected:
    void TearDown() override { OrvServerAPICleanup(); }
    void Start() { ASSERT_EQ(ORV_RESULT_Success, OrvServerAPIInitialize()); }
    std::string Extract(const std::string& name, const std::string& bytes)
    {
        OrvaneTest::WriteFileBytes(m_dir.File(name), bytes);
        return m_dir.File(name);
    }
    // Stops the library, which writes every queued line, and returns the log.
    std::string StopAndReadLog()
    {
        EXPECT_EQ(ORV_RESULT_Success, OrvServerAPICleanup());
        return OrvaneTest::ReadFileBytes(m_dir.File("OrvaneSDKServer.log"));
    }

    OrvaneTest::ProxyEnvironment m_noProxy{"", "127.0.0.1,localhost"};
    OrvaneTest::TempDirectory m_dir{"orv-capi"};
    bool m_logDirSet = ::setenv("ORV_SDK_LOGDIR", m_dir.Path().c_str(), 1) == 0;
};

// Started at once.
class StartedTest : public LibraryTest {
protected:
    void SetUp() override { Start(); }
};

}  // namespace CapiTest
