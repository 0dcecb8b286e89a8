#include "server/ConnectRespMsg.h"

#include "server/ServerException.h"
#include "server/XmlReplyParser.h"

#include <algorithm>

namespace OrvaneInternal {

namespace {

void ReadToken(ConnectRespMsg& message, const char** attributes)
{
    XmlReplyParser::ForEach(attributes, "token",
                            [&](const char* value) { message.m_token = XmlReplyParser::Text(value); });
}

void ReadSiteId(ConnectRespMsg& message, const char** attributes)
{
    XmlReplyParser::ForEach(attributes, "id",
                            [&](const char* value) { message.m_siteId = XmlReplyParser::Text(value); });
}

// The user id is not kept.
const XmlElement<ConnectRespMsg> kShape[] = {
    {0, "qsResponse", nullptr},
    {1, "credentials", &ReadToken},
    {2, "site", &ReadSiteId},
    {2, "user", nullptr},
};

// The token and site id go into header lines and URLs of every later
// request, and libcurl does not check header values: a CR or LF there would
// add lines of the server's choosing.
bool HasControlCharacter(const std::wstring& text)
{
    return std::any_of(text.begin(), text.end(), [](wchar_t c) { return c < 0x20 || (c >= 0x7F && c <= 0x9F); });
}

} // namespace

ConnectRespMsg::ConnectRespMsg(const std::string& reply)
{
    XmlReplyParser::Parse(reply, *this, kShape);
    if (HasControlCharacter(m_token) || HasControlCharacter(m_siteId))
        throw ServerException(ServerException::ResponseParseFailed);
}

} // namespace OrvaneInternal
