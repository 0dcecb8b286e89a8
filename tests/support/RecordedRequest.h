#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace OrvaneTest {

struct HeaderField {
    std::string name;  // as sent
    std::string value; // without the blanks around it
};

// One request as the test HTTP server received it.
struct RecordedRequest {
    std::size_t index = 0;      // 1-based, in order of arrival of the request heads
    std::size_t connection = 0; // 1-based number of the connection that carried it
    bool tls = false;
    std::string method;
    std::string target; // request target as sent, query included
    std::string version;
    std::string head;                 // request line and header lines as received, through the blank line
    std::vector<HeaderField> headers; // arrival order, duplicates kept
    bool chunked = false;      // the body came with chunked transfer-encoding (removed from `body`)
    bool bodyComplete = false; // the whole announced body arrived
    std::uint64_t bodyLength = 0;
    std::string bodySha256; // lower-case hex
    std::string body;       // loaded only when asked for and stored
    std::string bodyFile;   // empty when bodies are not stored
    bool continueSent = false; // the server answered "Expect: 100-continue" with 100
    int status = 0;            // status of the answer; 0 when the server closed without one

    // Case-insensitive lookups.
    std::optional<std::string> HeaderValue(std::string_view name) const;
    std::vector<std::string> HeaderValues(std::string_view name) const;
    bool HasHeader(std::string_view name) const { return HeaderValue(name).has_value(); }
    // The target without its query.
    std::string Path() const;

    // Reads the request `index` from the server's record directory; the meta file must exist.
    static RecordedRequest Load(const std::string& directory, std::size_t index, bool loadBody);
};

}  // namespace OrvaneTest
