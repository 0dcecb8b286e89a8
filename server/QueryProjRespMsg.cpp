#include "server/QueryProjRespMsg.h"

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

const XmlElement<QueryProjRespMsg> kShape[] = {
    {0, "qsResponse", nullptr},
    {1, "pagination", &ReadPagination},
    {1, "projects", nullptr},
    {2, "project", &ReadProject},
};

} // namespace

QueryProjRespMsg::QueryProjRespMsg(const std::string& reply)
{
    XmlReplyParser::Parse(reply, *this, kShape);
}

} // namespace OrvaneInternal
