#include "server/QueryProjReqMsg.h"

namespace OrvaneInternal {

QueryProjReqMsg::QueryProjReqMsg(const std::wstring& serverUrl, const std::wstring& siteId, const std::wstring& token,
                                 unsigned long pageNumber)
    : ReqMsg(serverUrl, siteId, token, ReqMsg::Get, RestRequest::Get, ReqMsg::Xml), m_pageNumber(pageNumber)
{
}

std::wstring QueryProjReqMsg::GetUrl() const
{
    return m_host + L"/api/2.0/sites/" + m_siteId + L"/projects?pageSize=" + std::to_wstring(kPageSize) +
           L"&pageNumber=" + std::to_wstring(m_pageNumber);
}

} // namespace OrvaneInternal
