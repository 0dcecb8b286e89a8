#include "server/PublishExtReqMsg.h"

namespace OrvaneInternal {

PublishExtReqMsg::PublishExtReqMsg(const std::wstring& serverUrl, const std::wstring& siteId, const std::wstring& token,
                                   const std::wstring& path, const std::wstring& projectId,
                                   const std::wstring& dataSourceName, bool overwrite)
    : MultipartReqMsg(serverUrl, siteId, token, ReqMsg::Multipart, RestRequest::Post, ReqMsg::Xml), m_path(path),
      m_projectId(projectId), m_dataSourceName(dataSourceName), m_overwrite(overwrite)
{
}

std::wstring PublishExtReqMsg::GetUrl() const
{
    std::wstring url = m_host + L"/api/2.0/sites/" + m_siteId + L"/datasources";
    if (m_overwrite)
        url += L"?overwrite=true"; // never an explicit false
    return url;
}

std::wstring PublishExtReqMsg::GetXml() const
{
    return L"<qsRequest><datasource name=\"" + m_dataSourceName + L"\" ><project id=\"" + m_projectId +
           L"\" /></datasource></qsRequest>";
}

std::wstring PublishExtReqMsg::GetPath() const
{
    return m_path;
}

std::string PublishExtReqMsg::GetFormat() const
{
    return "orvane_datasource";
}

} // namespace OrvaneInternal
