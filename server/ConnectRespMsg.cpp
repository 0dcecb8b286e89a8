#include "server/ConnectRespMsg.h"

#include "server/ServerException.h"
#include "server/XmlReplyParser.h"

#include <cstring>

namespace OrvaneInternal {

namespace {

void StoreAttribute(const char** attributes, const char* wanted, std::wstring& target)
{
    for (int i = 0; attributes[i] != nullptr; i += 2) {
        if (std::strcmp(attributes[i], wanted) == 0)
            target = XmlReplyParser::Text(attributes[i + 1]);  // a later duplicate wins
    }
}

void StartElement(void* userData, const char* name, const char** attributes)
{
    auto& message = *static_cast<ConnectRespMsg*>(userData);
    switch (message.m_depth) {
    case 0:
        if (std::strcmp(name, "qsResponse") != 0)
            throw ServerException(ServerException::UnexpectedResponse);
        break;
    case 1:
        if (std::strcmp(name, "credentials") != 0)
            throw ServerException(ServerException::UnexpectedResponse);
        StoreAttribute(attributes, "token", message.m_token);
        break;
    case 2:
        if (std::strcmp(name, "site") == 0)
            StoreAttribute(attributes, "id", message.m_siteId);
        else if (std::strcmp(name, "user") != 0)  // the user id is not kept
            throw ServerException(ServerException::UnexpectedResponse);
        break;
    default:
        throw ServerException(ServerException::UnexpectedResponse);
    }
    ++message.m_depth;
}

void EndElement(void* userData, const char*)
{
    --static_cast<ConnectRespMsg*>(userData)->m_depth;
}

}  // namespace

ConnectRespMsg::ConnectRespMsg(const std::string& reply)
{
    XmlReplyParser::Parse(reply, this, &StartElement, &EndElement);
}

}  // namespace OrvaneInternal
