#include "tests/support/HttpScript.h"

#include <cstdio>

namespace OrvaneTest {

namespace {

// JSON string literal of `bytes`; bytes from 0x80 up pass through (the server reads Latin-1).
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

std::string JsonList(const std::vector<std::string>& items)
{
    std::string out = "[";
    for (std::size_t i = 0; i < items.size(); ++i) {
        out += (i ? ", " : "") + JsonString(items[i]);
    }
    return out + "]";
}

}  // namespace

Response::Response(int status) { Set("status", std::to_string(status)); }

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

// A later value for a key replaces the earlier one in place.
Response& Response::Set(const std::string& key, const std::string& json)
{
    for (auto& field : m_fields) {
        if (field.first == key) {
            field.second = json;
            return *this;
        }
    }
    m_fields.emplace_back(key, json);
    return *this;
}

Response& Response::Header(const std::string& name, const std::string& value)
{
    m_headers.emplace_back(name, value);
    return *this;
}

Response& Response::Body(const std::string& bytes) { return Set("body", JsonString(bytes)); }
Response& Response::Chunked(std::size_t chunkSize)
{
    return Set("framing", "\"chunked\"").Set("chunk_size", std::to_string(chunkSize));
}
Response& Response::AnswerBeforeBody() { return Set("read_body", "\"none\""); }
Response& Response::ReadBodyBytes(std::uint64_t count) { return Set("read_body", std::to_string(count)); }
Response& Response::WithoutContinue() { return Set("continue", "\"skip\""); }
Response& Response::HoldBodyAt(std::uint64_t bytes, unsigned limitSeconds)
{
    return Set("hold_at", std::to_string(bytes)).Set("hold_limit", std::to_string(limitSeconds));
}
Response& Response::CloseWithoutAnswer() { return Set("fault", "\"close\""); }
Response& Response::ResetWithoutAnswer() { return Set("fault", "\"reset\""); }
Response& Response::TruncateBody(std::size_t sentBytes)
{
    return Set("fault", "\"truncate\"").Set("truncate_at", std::to_string(sentBytes));
}
Response& Response::OmitLastChunk() { return Set("fault", "\"drop_last_chunk\""); }

Response& Response::RequireBasicAuth(const std::string& user, const std::string& password,
                                     const std::vector<std::string>& challenges, const std::string& challengeBody)
{
    return Set("auth", "{\"user\": " + JsonString(user) + ", \"password\": " + JsonString(password) +
                           ", \"challenges\": " + JsonList(challenges) + ", \"body\": " + JsonString(challengeBody) +
                           "}");
}

std::string Response::ToJson() const
{
    std::string out = "{\"headers\": [";
    for (std::size_t i = 0; i < m_headers.size(); ++i) {
        out += (i ? ", [" : "[") + JsonString(m_headers[i].first) + ", " + JsonString(m_headers[i].second) + "]";
    }
    out += "]";
    for (const auto& [key, json] : m_fields) {
        out += ", \"" + key + "\": " + json;
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
        out += (i ? ",\n  {\"path\": " : "\n  {\"path\": ") + JsonString(route.path);
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
