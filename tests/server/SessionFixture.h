// Shared by the session tests: a started library (without libcurl), the
// recording transport, the capturing logger and builders for server replies.
#pragma once

#include "tests/server/CapturingLogger.h"
#include "tests/server/FakeNetwork.h"

#include "server/ServerConnection.h"
#include "server/ServerException.h"
#include "sys/Unicode.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace OrvaneTest {

// A scratch directory, removed with its content however the test ends.
class TempDir {
public:
    TempDir()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "orv-server-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr)
            throw std::runtime_error("mkdtemp failed");
        m_path = pattern;
    }
    ~TempDir()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    std::string Path(const std::string& name) const { return m_path + "/" + name; }
    // Writes `bytes` to the file `name` (UTF-8) and returns its path.
    std::string Write(const std::string& name, const std::string& bytes) const
    {
        std::ofstream out(Path(name), std::ios::binary | std::ios::trunc);
        out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        if (!out)
            throw std::runtime_error("cannot write " + Path(name));
        return Path(name);
    }

private:
    std::string m_path;
};

// The boundary out of a multipart content type, or "" when it is malformed:
// 28 hyphens and 12 lower-case hex digits.
inline std::string Boundary(const std::string& contentType)
{
    const std::string prefix = "multipart/mixed; boundary=";
    if (contentType.compare(0, prefix.size(), prefix) != 0 || contentType.size() != prefix.size() + 40)
        return "";
    const std::string boundary = contentType.substr(prefix.size());
    if (boundary.find_first_not_of('-') != 28 ||
        boundary.find_first_not_of("0123456789abcdef", 28) != std::string::npos)
        return "";
    return boundary;
}

// The upload body: XML part, then the file part named `name`.
inline std::string ExpectedUpload(const std::string& b, const std::string& xml, const std::string& name,
                                  const std::string& path, const std::string& file)
{
    return "--" + b + "\r\nContent-Disposition: form-data; name=\"request_payload\"\r\n\r\n" + xml + "\r\n--" + b +
           "\r\nContent-Disposition: form-data; name=\"" + name + "\"; filename=\"" + path +
           "\"\r\nContent-Type: application/octet-stream\r\n\r\n" + file + "\r\n--" + b + "--\r\n";
}

inline std::string SigninReply(const std::string& token = "T", const std::string& site = "S")
{
    return "<qsResponse><credentials token=\"" + token + "\"><site id=\"" + site +
           "\" contentUrl=\"\"/><user id=\"U\"/></credentials></qsResponse>";
}

using Projects = std::vector<std::pair<std::string, std::string>>;  // name, id in UTF-8

inline std::string PageReply(unsigned long page, unsigned long total, const Projects& projects)
{
    std::string xml = "<qsResponse><pagination pageNumber=\"" + std::to_string(page) +
                      "\" pageSize=\"100\" totalAvailable=\"" + std::to_string(total) + "\"/><projects>";
    for (const auto& project : projects)
        xml += "<project id=\"" + project.second + "\" name=\"" + project.first + "\"/>";
    return xml + "</projects></qsResponse>";
}

// `count` projects named prefix0, prefix1, ... with ids id-prefix0, ...
inline Projects Numbered(const std::string& prefix, int count)
{
    Projects projects;
    for (int i = 0; i < count; ++i)
        projects.emplace_back(prefix + std::to_string(i), "id-" + prefix + std::to_string(i));
    return projects;
}

class SessionTest : public ::testing::Test {
protected:
    void SetUp() override { OrvaneInternal::ServerConnection::s_initialized = true; }
    void TearDown() override { OrvaneInternal::ServerConnection::s_initialized = false; }

    FakeNetwork& Net() { return *m_transport.network; }
    std::vector<SentRequest>& Sent() { return m_transport.network->m_sent; }
    std::vector<std::string> Log() { return m_log.logger->Take(); }

    // A session signed in to http://srv with token T and site S; the sign-in's
    // traffic and log lines are dropped.
    std::unique_ptr<OrvaneInternal::ServerConnection> Connected()
    {
        auto session = std::make_unique<OrvaneInternal::ServerConnection>();
        Net().Reply(200, SigninReply());
        session->Connect(L"http://srv", L"alice", L"pw", L"");
        Sent().clear();
        Log();
        return session;
    }

    FakeNetworkScope m_transport;
    CapturingLoggerScope m_log;
};

// How a call ended, as text to compare: "ok"; "<code> <message>" for a
// ServerException; "<type> <what>" for the standard errors that pass through
// the session unchanged.
inline std::string Outcome(const std::function<void()>& call)
{
    try {
        call();
        return "ok";
    } catch (const OrvaneInternal::ServerException& e) {
        return std::to_string(e.getErrorCode()) + " " + Unicode::ToUTF8(e.getMessage()).str();
    } catch (const std::invalid_argument& e) {
        return std::string("invalid_argument ") + e.what();
    } catch (const std::out_of_range& e) {
        return std::string("out_of_range ") + e.what();
    }
}

}  // namespace OrvaneTest
