#include "server/PublishExtRespMsg.h"

#include "server/ServerException.h"
#include "server/XmlReplyParser.h"

#include <cstring>

namespace OrvaneInternal {

namespace {

bool Allowed(int32_t depth, const char* name)
{
    switch (depth) {
    case 0:
        return std::strcmp(name, "qsResponse") == 0;
    case 1:
        return std::strcmp(name, "datasource") == 0;
    case 2:
        return std::strcmp(name, "project") == 0 || std::strcmp(name, "owner") == 0 ||
               std::strcmp(name, "tags") == 0;
    case 3:
        return std::strcmp(name, "tag") == 0;
    default:
        return false;
    }
}

void StartElement(void* userData, const char* name, const char**)
{
    auto& message = *static_cast<PublishExtRespMsg*>(userData);
    if (!Allowed(message.m_depth, name))
        throw ServerException(ServerException::UnexpectedResponse);
    ++message.m_depth;
}

void EndElement(void* userData, const char*)
{
    --static_cast<PublishExtRespMsg*>(userData)->m_depth;
}

}  // namespace

PublishExtRespMsg::PublishExtRespMsg(const std::string& reply)
{
    XmlReplyParser::Parse(reply, this, &StartElement, &EndElement);
}

}  // namespace OrvaneInternal
