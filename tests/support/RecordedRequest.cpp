#include "tests/support/RecordedRequest.h"

#include "tests/support/ChildProcess.h"

#include <strings.h>

#include <sstream>
#include <stdexcept>
#include <sys/stat.h>

namespace OrvaneTest {

namespace {

bool SameName(std::string_view a, std::string_view b)
{
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::string Trim(const std::string& text)
{
    std::size_t begin = text.find_first_not_of(" \t");
    if (begin == std::string::npos) {
        return {};
    }
    std::size_t end = text.find_last_not_of(" \t");
    return text.substr(begin, end - begin + 1);
}

HeaderField SplitField(const std::string& line)
{
    std::size_t colon = line.find(':');
    if (colon == std::string::npos) {
        return HeaderField{line, {}};
    }
    return HeaderField{line.substr(0, colon), Trim(line.substr(colon + 1))};
}

std::vector<std::string> Lines(const std::string& text)
{
    std::vector<std::string> lines;
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find('\n', start);
        if (end == std::string::npos) {
            end = text.size();
        }
        std::string line = text.substr(start, end - start);
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        lines.push_back(line);
        start = end + 1;
    }
    return lines;
}

}  // namespace

std::optional<std::string> RecordedRequest::HeaderValue(std::string_view name) const
{
    for (const auto& field : headers) {
        if (SameName(field.name, name)) {
            return field.value;
        }
    }
    return std::nullopt;
}

std::vector<std::string> RecordedRequest::HeaderValues(std::string_view name) const
{
    std::vector<std::string> values;
    for (const auto& field : headers) {
        if (SameName(field.name, name)) {
            values.push_back(field.value);
        }
    }
    return values;
}

std::string RecordedRequest::Path() const
{
    return target.substr(0, target.find('?'));
}

RecordedRequest RecordedRequest::Load(const std::string& directory, std::size_t index, bool loadBody)
{
    const std::string stem = directory + "/" + std::to_string(index);
    RecordedRequest request;
    request.index = index;

    for (const auto& line : Lines(ReadFileBytes(stem + ".meta"))) {
        std::size_t blank = line.find(' ');
        std::string key = line.substr(0, blank);
        std::string value = blank == std::string::npos ? std::string() : line.substr(blank + 1);
        if (key == "connection") {
            request.connection = std::stoul(value);
        } else if (key == "tls") {
            request.tls = value == "1";
        } else if (key == "chunked") {
            request.chunked = value == "1";
        } else if (key == "body_length") {
            request.bodyLength = std::stoull(value);
        } else if (key == "body_complete") {
            request.bodyComplete = value == "1";
        } else if (key == "body_sha256") {
            request.bodySha256 = value;
        } else if (key == "continue_sent") {
            request.continueSent = value == "1";
        } else if (key == "status") {
            request.status = std::stoi(value);
        } else if (key == "trailer") {
            request.trailers.push_back(SplitField(value));
        }
    }
    if (request.bodySha256.empty()) {
        throw std::runtime_error("RecordedRequest: incomplete record " + stem + ".meta");
    }

    request.head = ReadFileBytes(stem + ".head");
    std::vector<std::string> lines = Lines(request.head);
    std::size_t first = 0;
    while (first < lines.size() && lines[first].empty()) {
        ++first;
    }
    if (first < lines.size()) {
        std::istringstream requestLine(lines[first]);
        requestLine >> request.method >> request.target >> request.version;
    }
    for (std::size_t i = first + 1; i < lines.size() && !lines[i].empty(); ++i) {
        const std::string& line = lines[i];
        if ((line[0] == ' ' || line[0] == '\t') && !request.headers.empty()) {
            request.headers.back().value += " " + Trim(line);
        } else {
            request.headers.push_back(SplitField(line));
        }
    }

    struct stat info {};
    if (stat((stem + ".body").c_str(), &info) == 0) {
        request.bodyFile = stem + ".body";
        if (loadBody) {
            request.body = ReadFileBytes(request.bodyFile);
        }
    }
    return request;
}

}  // namespace OrvaneTest
