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

}  // namespace

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

std::optional<std::string> RecordedRequest::HeaderValue(std::string_view name) const
{
    std::vector<std::string> values = HeaderValues(name);
    return values.empty() ? std::nullopt : std::optional<std::string>(values.front());
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

    for (const auto& line : SplitLines(ReadFileBytes(stem + ".meta"))) {
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
        }
    }
    if (request.bodySha256.empty()) {
        throw std::runtime_error("RecordedRequest: incomplete record " + stem + ".meta");
    }

    request.head = ReadFileBytes(stem + ".head");
    std::vector<std::string> lines = SplitLines(request.head);
    if (!lines.empty()) {
        std::istringstream(lines[0]) >> request.method >> request.target >> request.version;
    }
    for (std::size_t i = 1; i < lines.size() && !lines[i].empty(); ++i) {
        request.headers.push_back(SplitField(lines[i]));
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
