#include "server/QueryProjRespMsg.h"

#include "server/ServerException.h"
#include "server/XmlReplyParser.h"

#include <cstring>
#include <utility>

namespace OrvaneInternal {

namespace {

void ReadPagination(QueryProjRespMsg& message, const char** attributes)
{
    for (int i = 0; attributes[i] != nullptr; i += 2) {
        const char* name = attributes[i];
        if (std::strcmp(name, "pageNumber") == 0)
            message.m_pageNumber = std::stoul(attributes[i + 1], nullptr, 10);
        else if (std::strcmp(name, "pageSize") == 0)
            message.m_pageSize = std::stoul(attributes[i + 1], nullptr, 10);
        else if (std::strcmp(name, "totalAvailable") == 0)
            message.m_totalAvailable = std::stoul(attributes[i + 1], nullptr, 10);
    }
}

void ReadProject(QueryProjRespMsg& message, const char** attributes)
{
    std::wstring name;
    std::wstring id;
    for (int i = 0; attributes[i] != nullptr; i += 2) {
        if (std::strcmp(attributes[i], "name") == 0)
            name = XmlReplyParser::Text(attributes[i + 1]);
        else if (std::strcmp(attributes[i], "id") == 0)
            id = XmlReplyParser::Text(attributes[i + 1]);
    }
    if (!name.empty() && !id.empty())
        message.m_projects.insert_or_assign(std::move(name), std::move(id));
}

void StartElement(void* userData, const char* name, const char** attributes)
{
    auto& message = *static_cast<QueryProjRespMsg*>(userData);
    switch (message.m_depth) {
    case 0:
        if (std::strcmp(name, "qsResponse") != 0)
            throw ServerException(ServerException::UnexpectedResponse);
        break;
    case 1:
        if (std::strcmp(name, "pagination") == 0)
            ReadPagination(message, attributes);
        else if (std::strcmp(name, "projects") != 0)
            throw ServerException(ServerException::UnexpectedResponse);
        break;
    case 2:
        if (std::strcmp(name, "project") != 0)
            throw ServerException(ServerException::UnexpectedResponse);
        ReadProject(message, attributes);
        break;
    default:
        throw ServerException(ServerException::UnexpectedResponse);
    }
    ++message.m_depth;
}

void EndElement(void* userData, const char*)
{
    --static_cast<QueryProjRespMsg*>(userData)->m_depth;
}

}  // namespace

QueryProjRespMsg::QueryProjRespMsg(const std::string& reply)
{
    XmlReplyParser::Parse(reply, this, &StartElement, &EndElement);
}

}  // namespace OrvaneInternal
