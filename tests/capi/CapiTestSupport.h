// What the exported-API tests share: UTF-16 text as a caller passes it, the
// last error as narrow text, an environment without proxies, and the
// reference server as a child process on an ephemeral loopback port.
#pragma once

#include <orvane/OrvaneServer.h>

#include "tests/support/ChildProcess.h"

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>

namespace CapiTest
{

using Utf16 = std::basic_string<unsigned short>;

// Every text the tests pass is ASCII.
inline Utf16 U(const std::string& text)
{
    Utf16 out;
    for (char c : text)
        out.push_back(static_cast<unsigned char>(c));
    return out;
}

// The last error as UTF-8; the library's texts here are ASCII plus the paths we chose.
inline std::string LastError()
{
    std::string out;
    for (const wchar_t* p = OrvGetLastErrorMessage(); *p != L'\0'; ++p)
        out.push_back(static_cast<char>(*p));
    return out;
}

// Loopback exchanges must never be routed through a proxy from the environment.
inline void ClearProxyEnvironment()
{
    for (const char* name :
         {"http_proxy", "https_proxy", "all_proxy", "ftp_proxy", "HTTP_PROXY", "HTTPS_PROXY", "ALL_PROXY", "FTP_PROXY"})
        ::unsetenv(name);
    ::setenv("no_proxy", "127.0.0.1,localhost", 1);
    ::setenv("NO_PROXY", "127.0.0.1,localhost", 1);
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

inline void WriteFile(const std::string& path, const std::string& bytes)
{
    OrvaneTest::WriteFileBytes(path, bytes);
}

// A connection handle that is closed when the test leaves its scope.
class Connection
{
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
    // Closes now; the result of the library's Close.
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

// The reference server (tools/orvane-reference-server) with its default
// configuration: user "demo" / "demo-password", the default site "", and
// project "Samples" on page 3. Stopped and its files removed on destruction.
class ReferenceServer
{
  public:
    ReferenceServer() : m_dir("orv-capi-reference")
    {
        m_process = std::make_unique<OrvaneTest::ChildProcess>(
            std::vector<std::string>{ORV_PYTHON, std::string(ORV_SOURCE_DIR) + "/tools/orvane-reference-server",
                                     "--host", "127.0.0.1", "--port", "0", "--port-file", m_dir.File("port"),
                                     "--data-dir", DataDir(), "--quiet"},
            m_dir.File("output"));
        // Python start-up takes a fraction of a second; give up after 20 s.
        for (int attempt = 0; attempt < 2000 && m_port == 0; ++attempt) {
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
    std::string DataDir() const { return m_dir.File("data"); }
    // A scratch directory that goes away with the server.
    std::string File(const std::string& name) const { return m_dir.File(name); }

    // The bytes stored for data source `name` in `project` of the default
    // site; nothing when the server holds no such data source.
    std::optional<std::string> Stored(const std::string& project, const std::string& name) const
    {
        namespace fs = std::filesystem;
        std::error_code error;
        for (const fs::directory_entry& site : fs::directory_iterator(DataDir(), error)) {
            if (site.path().filename().string().front() == '.')
                continue; // uploads in progress
            const fs::path file = site.path() / project / (name + ".qrx");
            if (fs::is_regular_file(file))
                return OrvaneTest::ReadFileBytes(file.string());
        }
        return std::nullopt;
    }

  private:
    OrvaneTest::TempDirectory m_dir;
    std::unique_ptr<OrvaneTest::ChildProcess> m_process;
    int m_port = 0;
};

} // namespace CapiTest
