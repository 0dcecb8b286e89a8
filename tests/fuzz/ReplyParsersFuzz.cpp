// The three reply parsers over the same input. Each must either build its
// message or throw what its contract allows: ServerException 300 (not
// well-formed) or 403 (unexpected element), both with an empty message, and
// for the project page the standard library's "stoul" errors. The expected
// outcome and fields come from a model that replays expat's own event stream
// (recorded here, without the library) through the documented element rules;
// any difference, any other exception, a crash or a leak is a finding.
#include "server/ConnectRespMsg.h"
#include "server/PublishExtRespMsg.h"
#include "server/QueryProjRespMsg.h"
#include "server/ServerException.h"

#include "fuzz/FuzzSupport.h"

#include <expat.h>

#include <cctype>
#include <climits>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

using namespace OrvaneFuzz;
using OrvaneInternal::ConnectRespMsg;
using OrvaneInternal::PublishExtRespMsg;
using OrvaneInternal::QueryProjRespMsg;
using OrvaneInternal::ServerException;

namespace {

struct Event {
    bool start;
    std::string name;
    std::vector<std::pair<std::string, std::string>> attributes;  // document order
};

struct Recording {
    std::vector<Event> events;
    bool wellFormed = false;
};

void RecordStart(void* data, const XML_Char* name, const XML_Char** attributes)
{
    Event event{true, name, {}};
    for (int i = 0; attributes[i] != nullptr; i += 2)
        event.attributes.emplace_back(attributes[i], attributes[i + 1]);
    static_cast<Recording*>(data)->events.push_back(std::move(event));
}

void RecordEnd(void* data, const XML_Char* name)
{
    static_cast<Recording*>(data)->events.push_back(Event{false, name, {}});
}

Recording Record(const std::string& reply)
{
    Recording recording;
    XML_Parser parser = XML_ParserCreate(nullptr);
    FUZZ_CHECK(parser != nullptr, "XML_ParserCreate");
    XML_SetUserData(parser, &recording);
    XML_SetElementHandler(parser, &RecordStart, &RecordEnd);
    recording.wellFormed = XML_Parse(parser, reply.data(), static_cast<int>(reply.size()), 1) == XML_STATUS_OK;
    XML_ParserFree(parser);
    return recording;
}

// What a parser is expected to do with the input.
enum class Outcome { Built, NotWellFormed, Unexpected, InvalidNumber, NumberOutOfRange };

const char* Name(Outcome outcome)
{
    switch (outcome) {
    case Outcome::Built: return "built";
    case Outcome::NotWellFormed: return "ServerException 300";
    case Outcome::Unexpected: return "ServerException 403";
    case Outcome::InvalidNumber: return "invalid_argument stoul";
    case Outcome::NumberOutOfRange: return "out_of_range stoul";
    }
    return "?";
}

std::wstring Wide(const std::string& utf8)
{
    const auto text = DecodeUtf8(utf8);
    FUZZ_CHECK(text.has_value(), "expat handed over text that is not UTF-8");
    return ToWide(*text);
}

const std::string* Attribute(const Event& event, const char* name)
{
    for (const auto& [key, value] : event.attributes) {
        if (key == name)
            return &value;  // expat refuses duplicate attributes
    }
    return nullptr;
}

// The standard unsigned-long conversion in base 10, as written down for the
// pagination values: leading blanks and one sign accepted, trailing characters
// ignored, a negative value taken modulo 2^64, no digits or too many refused.
Outcome ParseUnsigned(const std::string& text, uint64_t& value)
{
    static_assert(sizeof(unsigned long) == sizeof(uint64_t), "64-bit unsigned long");
    size_t i = 0;
    while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i])))
        ++i;
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-'))
        negative = text[i++] == '-';
    if (i == text.size() || !std::isdigit(static_cast<unsigned char>(text[i])))
        return Outcome::InvalidNumber;
    uint64_t magnitude = 0;
    bool overflow = false;
    for (; i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])); ++i) {
        const uint64_t digit = static_cast<uint64_t>(text[i] - '0');
        if (magnitude > (UINT64_MAX - digit) / 10)
            overflow = true;
        else
            magnitude = magnitude * 10 + digit;
    }
    if (overflow)
        return Outcome::NumberOutOfRange;
    value = negative ? 0 - magnitude : magnitude;
    return Outcome::Built;
}

// --- the models ---

struct ConnectModel {
    Outcome outcome = Outcome::Built;
    std::wstring token;
    std::wstring siteId;
};

ConnectModel ModelConnect(const Recording& recording)
{
    ConnectModel model;
    int depth = 0;
    for (const Event& event : recording.events) {
        if (!event.start) {
            --depth;
            continue;
        }
        if (depth == 0 && event.name == "qsResponse") {
        } else if (depth == 1 && event.name == "credentials") {
            if (const std::string* token = Attribute(event, "token"))
                model.token = Wide(*token);
        } else if (depth == 2 && event.name == "site") {
            if (const std::string* id = Attribute(event, "id"))
                model.siteId = Wide(*id);
        } else if (depth == 2 && event.name == "user") {
        } else {
            model.outcome = Outcome::Unexpected;
            return model;
        }
        ++depth;
    }
    if (!recording.wellFormed)
        model.outcome = Outcome::NotWellFormed;
    return model;
}

struct QueryModel {
    Outcome outcome = Outcome::Built;
    uint64_t pageNumber = 0;
    uint64_t pageSize = 0;
    uint64_t totalAvailable = 0;
    std::unordered_map<std::wstring, std::wstring> projects;
};

QueryModel ModelQuery(const Recording& recording)
{
    QueryModel model;
    int depth = 0;
    for (const Event& event : recording.events) {
        if (!event.start) {
            --depth;
            continue;
        }
        if (depth == 0 && event.name == "qsResponse") {
        } else if (depth == 1 && event.name == "pagination") {
            for (const auto& [key, value] : event.attributes) {
                uint64_t* target = key == "pageNumber"       ? &model.pageNumber
                                   : key == "pageSize"       ? &model.pageSize
                                   : key == "totalAvailable" ? &model.totalAvailable
                                                             : nullptr;
                if (target == nullptr)
                    continue;
                model.outcome = ParseUnsigned(value, *target);
                if (model.outcome != Outcome::Built)
                    return model;
            }
        } else if (depth == 1 && event.name == "projects") {
        } else if (depth == 2 && event.name == "project") {
            const std::string* name = Attribute(event, "name");
            const std::string* id = Attribute(event, "id");
            if (name != nullptr && id != nullptr && !name->empty() && !id->empty())
                model.projects[Wide(*name)] = Wide(*id);
        } else {
            model.outcome = Outcome::Unexpected;
            return model;
        }
        ++depth;
    }
    if (!recording.wellFormed)
        model.outcome = Outcome::NotWellFormed;
    return model;
}

Outcome ModelPublish(const Recording& recording)
{
    static const std::vector<std::vector<std::string>> allowed = {
        {"qsResponse"}, {"datasource"}, {"project", "owner", "tags"}, {"tag"}};
    size_t depth = 0;
    for (const Event& event : recording.events) {
        if (!event.start) {
            --depth;
            continue;
        }
        bool ok = false;
        if (depth < allowed.size()) {
            for (const std::string& name : allowed[depth])
                ok = ok || event.name == name;
        }
        if (!ok)
            return Outcome::Unexpected;
        ++depth;
    }
    return recording.wellFormed ? Outcome::Built : Outcome::NotWellFormed;
}

// Runs `parse` and names what it did. Only the exceptions a parser's contract
// allows are caught; anything else escapes and aborts the run.
template <class Parse>
Outcome Run(const char* parser, Parse parse)
{
    try {
        parse();
        return Outcome::Built;
    } catch (const ServerException& e) {
        FUZZ_CHECK(e.getMessage().empty(), std::string(parser) + ": ServerException with a message");
        if (e.getErrorCode() == ServerException::ResponseParseFailed)
            return Outcome::NotWellFormed;
        FUZZ_CHECK(e.getErrorCode() == ServerException::UnexpectedResponse,
                   std::string(parser) + ": ServerException " + std::to_string(e.getErrorCode()));
        return Outcome::Unexpected;
    } catch (const std::invalid_argument& e) {
        FUZZ_CHECK(std::strcmp(e.what(), "stoul") == 0, std::string(parser) + ": invalid_argument " + e.what());
        return Outcome::InvalidNumber;
    } catch (const std::out_of_range& e) {
        FUZZ_CHECK(std::strcmp(e.what(), "stoul") == 0, std::string(parser) + ": out_of_range " + e.what());
        return Outcome::NumberOutOfRange;
    }
}

void ExpectOutcome(const char* parser, Outcome expected, Outcome actual)
{
    FUZZ_CHECK(expected == actual, std::string(parser) + ": expected " + Name(expected) + ", got " + Name(actual));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > static_cast<size_t>(INT_MAX))
        return 0;
    const std::string reply(reinterpret_cast<const char*>(data), size);
    const Recording recording = Record(reply);

    const ConnectModel connectModel = ModelConnect(recording);
    ConnectModel connect;
    connect.outcome = Run("ConnectRespMsg", [&] {
        const ConnectRespMsg message(reply);
        FUZZ_CHECK(message.m_depth == 0, "ConnectRespMsg depth " + std::to_string(message.m_depth));
        connect.token = message.m_token;
        connect.siteId = message.m_siteId;
    });
    ExpectOutcome("ConnectRespMsg", connectModel.outcome, connect.outcome);
    if (connect.outcome == Outcome::Built) {
        FUZZ_CHECK(connect.token == connectModel.token, "ConnectRespMsg token");
        FUZZ_CHECK(connect.siteId == connectModel.siteId, "ConnectRespMsg site id");
    }

    const QueryModel queryModel = ModelQuery(recording);
    QueryModel query;
    query.outcome = Run("QueryProjRespMsg", [&] {
        const QueryProjRespMsg message(reply);
        FUZZ_CHECK(message.m_depth == 0, "QueryProjRespMsg depth " + std::to_string(message.m_depth));
        query.pageNumber = message.m_pageNumber;
        query.pageSize = message.m_pageSize;
        query.totalAvailable = message.m_totalAvailable;
        query.projects = message.m_projects;
    });
    ExpectOutcome("QueryProjRespMsg", queryModel.outcome, query.outcome);
    if (query.outcome == Outcome::Built) {
        FUZZ_CHECK(query.pageNumber == queryModel.pageNumber, "QueryProjRespMsg pageNumber");
        FUZZ_CHECK(query.pageSize == queryModel.pageSize, "QueryProjRespMsg pageSize");
        FUZZ_CHECK(query.totalAvailable == queryModel.totalAvailable, "QueryProjRespMsg totalAvailable");
        FUZZ_CHECK(query.projects == queryModel.projects, "QueryProjRespMsg projects");
    }

    ExpectOutcome("PublishExtRespMsg", ModelPublish(recording),
                  Run("PublishExtRespMsg", [&] {
                      const PublishExtRespMsg message(reply);
                      FUZZ_CHECK(message.m_depth == 0, "PublishExtRespMsg depth " + std::to_string(message.m_depth));
                  }));
    return 0;
}
