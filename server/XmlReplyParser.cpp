#include "server/XmlReplyParser.h"

#include "server/ServerException.h"
#include "sys/Errors.h"
#include "sys/Unicode.h"

#include <expat.h>

#include <climits>
#include <exception>
#include <memory>

namespace OrvaneInternal {

namespace {

struct ParseContext {
    XML_Parser parser;
    void* userData;
    void (*start)(void* userData, const char* name, const char** attributes);
    void (*end)(void* userData, const char* name);
    std::exception_ptr error;
};

template <class F> void Guard(ParseContext& context, F&& handler)
{
    if (context.error)
        return;
    try {
        handler();
    } catch (...) {
        RethrowForcedUnwind();
        context.error = std::current_exception();
        XML_StopParser(context.parser, XML_FALSE);
    }
}

void OnStart(void* data, const XML_Char* name, const XML_Char** attributes)
{
    auto& context = *static_cast<ParseContext*>(data);
    Guard(context, [&] { context.start(context.userData, name, attributes); });
}

void OnEnd(void* data, const XML_Char* name)
{
    auto& context = *static_cast<ParseContext*>(data);
    Guard(context, [&] { context.end(context.userData, name); });
}

struct ParserDeleter {
    void operator()(XML_ParserStruct* parser) const { XML_ParserFree(parser); }
};

} // namespace

std::wstring XmlReplyParser::Text(const char* value)
{
    const char* end = value;
    while (*end != '\0' && static_cast<unsigned char>(*end) < 0x80)
        ++end;
    if (*end == '\0')
        return std::wstring(value, end);
    return Unicode::ToWideChar(value).str();
}

void XmlReplyParser::Parse(const std::string& reply, void* userData, StartHandler start, EndHandler end)
{
    std::unique_ptr<XML_ParserStruct, ParserDeleter> parser(XML_ParserCreate(nullptr));
    if (!parser)
        throw ServerException(ServerException::ResponseParseFailed);
    ParseContext context{parser.get(), userData, start, end, nullptr};
    XML_SetUserData(parser.get(), &context);
    XML_SetElementHandler(parser.get(), &OnStart, &OnEnd);
    if (reply.size() > static_cast<size_t>(INT_MAX))
        throw ServerException(ServerException::ResponseParseFailed);
    const XML_Status status = XML_Parse(parser.get(), reply.data(), static_cast<int>(reply.size()), 1);
    if (context.error)
        std::rethrow_exception(context.error);
    if (status != XML_STATUS_OK)
        throw ServerException(ServerException::ResponseParseFailed);
}

} // namespace OrvaneInternal
