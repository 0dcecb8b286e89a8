#include "server/PublishExtRespMsg.h"

#include "server/XmlReplyParser.h"

namespace OrvaneInternal {

namespace {

// Checked for shape only: nothing of the reply is kept.
const XmlElement<PublishExtRespMsg> kShape[] = {
    {0, "qsResponse", nullptr}, {1, "datasource", nullptr}, {2, "project", nullptr},
    {2, "owner", nullptr},      {2, "tags", nullptr},       {3, "tag", nullptr},
};

} // namespace

PublishExtRespMsg::PublishExtRespMsg(const std::string& reply)
{
    XmlReplyParser::Parse(reply, *this, kShape);
}

} // namespace OrvaneInternal
