// Runs expat over a whole reply with element handlers. Handlers may throw:
// the exception is caught inside the callback, the parser is stopped, and the
// same exception is rethrown to the caller once expat has returned (nothing
// unwinds through expat). A reply that is not well-formed XML, or a parser
// that cannot be made, throws ServerException 300 with an empty message.
#pragma once

#include <string>

namespace OrvaneInternal {

class XmlReplyParser {
public:
    using StartHandler = void (*)(void* userData, const char* name, const char** attributes);
    using EndHandler = void (*)(void* userData, const char* name);

    static void Parse(const std::string& reply, void* userData, StartHandler start, EndHandler end);

    // An attribute value (UTF-8) as a wide string. Replies are mostly ASCII,
    // which is widened unit by unit; only other text goes through the
    // converter, whose errors pass unchanged.
    static std::wstring Text(const char* value);
};

}  // namespace OrvaneInternal
