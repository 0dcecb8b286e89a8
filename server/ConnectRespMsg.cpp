#include "server/ConnectRespMsg.h"

#include "server/ServerException.h"
#include "server/XmlReplyParser.h"

#include <algorithm>
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

namespace {

// The token and site id go into header lines and URLs of every later
// request, and libcurl does not check header values: a CR or LF there would
// add lines of the server's choosing.
bool HasControlCharacter(const std::wstring& text)
{
    return std::any_of(text.begin(), text.end(), [](wchar_t c) { return c < 0x20 || (c >= 0x7F && c <= 0x9F); });
}

}  // namespace

ConnectRespMsg::ConnectRespMsg(const std::string& reply)
{
    XmlReplyParser::Parse(reply, this, &StartElement, &EndElement);
    if (HasControlCharacter(m_token) || HasControlCharacter(m_siteId))
        throw ServerException(ServerException::ResponseParseFailed);
}

}  // namespace OrvaneInternal
