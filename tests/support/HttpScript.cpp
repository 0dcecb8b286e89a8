#include "tests/support/HttpScript.h"

#include <cstdio>

namespace OrvaneTest {

namespace {

std::string Base64(const std::string& bytes)
{
    static const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    std::size_t i = 0;
    for (; i + 2 < bytes.size(); i += 3) {
        unsigned v = (static_cast<unsigned char>(bytes[i]) << 16) | (static_cast<unsigned char>(bytes[i + 1]) << 8) |
                     static_cast<unsigned char>(bytes[i + 2]);
        out += alphabet[(v >> 18) & 63];
        out += alphabet[(v >> 12) & 63];
        out += alphabet[(v >> 6) & 63];
        out += alphabet[v & 63];
    }
    if (i + 1 == bytes.size()) {
        unsigned v = static_cast<unsigned char>(bytes[i]) << 16;
        out += alphabet[(v >> 18) & 63];
        out += alphabet[(v >> 12) & 63];
        out += "==";
    } else if (i + 2 == bytes.size()) {
        unsigned v = (static_cast<unsigned char>(bytes[i]) << 16) | (static_cast<unsigned char>(bytes[i + 1]) << 8);
        out += alphabet[(v >> 18) & 63];
        out += alphabet[(v >> 12) & 63];
        out += alphabet[(v >> 6) & 63];
        out += '=';
    }
    return out;
}

std::string JsonList(const std::vector<std::string>& items)
{
    std::string out = "[";
    for (std::size_t i = 0; i < items.size(); ++i) {
        out += (i ? ", " : "") + JsonString(items[i]);
    }
    return out + "]";
}

}  // namespace

std::string JsonString(const std::string& bytes)
{
    std::string out = "\"";
    for (char c : bytes) {
        unsigned char u = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (u < 0x20 || u == 0x7f) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", u);
            out += escaped;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

Response::Response(int status) : m_status(status) {}

Response Response::Redirect(int status, const std::string& location)
{
    return Response(status).Header("Location", location);
}

Response Response::Challenge(const std::vector<std::string>& wwwAuthenticate, int status)
{
    Response response(status);
    for (const auto& value : wwwAuthenticate) {
        response.Header("WWW-Authenticate", value);
    }
    return response;
}

Response& Response::Reason(const std::string& reason)
{
    m_reason = reason;
    return *this;
}

Response& Response::Header(const std::string& name, const std::string& value)
{
    m_headers.emplace_back(name, value);
    return *this;
}

Response& Response::Body(const std::string& bytes)
{
    m_body = bytes;
    return *this;
}

Response& Response::Chunked(std::size_t chunkSize)
{
    m_framing = "chunked";
    m_chunkSize = chunkSize;
    return *this;
}

Response& Response::UntilClose()
{
    m_framing = "close";
    return *this;
}

Response& Response::NoFraming()
{
    m_framing = "none";
    return *this;
}

Response& Response::CloseConnection()
{
    m_close = true;
    return *this;
}

Response& Response::RequireBasicAuth(const std::string& user, const std::string& password,
                                     const std::vector<std::string>& challenges, const std::string& challengeBody)
{
    m_auth = true;
    m_user = user;
    m_password = password;
    m_challenges = challenges;
    m_challengeBody = challengeBody;
    return *this;
}

Response& Response::AnswerBeforeBody()
{
    m_readBody = "\"none\"";
    return *this;
}

Response& Response::AnswerThenReadBody()
{
    m_readBody = "\"after\"";
    return *this;
}

Response& Response::ReadBodyBytes(std::uint64_t count)
{
    m_readBody = std::to_string(count);
    return *this;
}

Response& Response::WithoutContinue()
{
    m_skipContinue = true;
    return *this;
}

Response& Response::HoldBodyAt(std::uint64_t bytes, unsigned limitSeconds)
{
    m_holdAt = bytes;
    m_holdLimit = limitSeconds;
    return *this;
}

Response& Response::CloseWithoutAnswer()
{
    m_fault = "close";
    return *this;
}

Response& Response::ResetWithoutAnswer()
{
    m_fault = "reset";
    return *this;
}

Response& Response::TruncateBody(std::size_t sentBytes)
{
    m_fault = "truncate";
    m_truncateAt = sentBytes;
    return *this;
}

Response& Response::OmitLastChunk()
{
    m_fault = "drop_last_chunk";
    return *this;
}

std::string Response::ToJson() const
{
    std::string out = "{\"status\": " + std::to_string(m_status);
    if (m_reason) {
        out += ", \"reason\": " + JsonString(*m_reason);
    }
    out += ", \"headers\": [";
    for (std::size_t i = 0; i < m_headers.size(); ++i) {
        out += (i ? ", [" : "[") + JsonString(m_headers[i].first) + ", " + JsonString(m_headers[i].second) + "]";
    }
    out += "], \"body_base64\": \"" + Base64(m_body) + "\"";
    if (!m_framing.empty()) {
        out += ", \"framing\": " + JsonString(m_framing) + ", \"chunk_size\": " + std::to_string(m_chunkSize);
    }
    if (m_close) {
        out += ", \"close\": true";
    }
    if (m_readBody) {
        out += ", \"read_body\": " + *m_readBody;
    }
    if (m_skipContinue) {
        out += ", \"continue\": \"skip\"";
    }
    if (!m_fault.empty()) {
        out += ", \"fault\": " + JsonString(m_fault);
    }
    if (m_truncateAt) {
        out += ", \"truncate_at\": " + std::to_string(*m_truncateAt);
    }
    if (m_holdAt) {
        out += ", \"hold_at\": " + std::to_string(*m_holdAt) + ", \"hold_limit\": " + std::to_string(m_holdLimit);
    }
    if (m_auth) {
        out += ", \"auth\": {\"user\": " + JsonString(m_user) + ", \"password\": " + JsonString(m_password) +
               ", \"challenges\": " + JsonList(m_challenges) + ", \"body\": " + JsonString(m_challengeBody) + "}";
    }
    return out + "}";
}

Script& Script::On(const std::string& path, const Response& response)
{
    return Sequence(path, {response});
}

Script& Script::On(const std::string& method, const std::string& path, const Response& response)
{
    return Sequence(path, {response}, method);
}

Script& Script::Sequence(const std::string& path, const std::vector<Response>& responses, const std::string& method)
{
    m_routes.push_back(Route{method, path, responses});
    return *this;
}

std::string Script::ToJson() const
{
    std::string out = "{\"routes\": [";
    for (std::size_t i = 0; i < m_routes.size(); ++i) {
        const Route& route = m_routes[i];
        out += i ? ",\n  {" : "\n  {";
        out += "\"path\": " + JsonString(route.path);
        if (!route.method.empty()) {
            out += ", \"method\": " + JsonString(route.method);
        }
        out += ", \"responses\": [";
        for (std::size_t j = 0; j < route.responses.size(); ++j) {
            out += (j ? ",\n    " : "\n    ") + route.responses[j].ToJson();
        }
        out += "]}";
    }
    return out + "\n]}\n";
}

}  // namespace OrvaneTest
