#include "server/ConnectReqMsg.h"

namespace OrvaneInternal {

ConnectReqMsg::ConnectReqMsg(const std::wstring& serverUrl, const std::wstring& name, const std::wstring& password,
                             const std::wstring& site)
    : ReqMsg(serverUrl, std::wstring(), std::wstring(), ReqMsg::Buffer, RestRequest::Post, ReqMsg::Xml), m_name(name),
      m_password(password), m_site(site)
{
}

std::wstring ConnectReqMsg::GetUrl() const
{
    return m_host + L"/api/2.0/auth/signin";
}

std::wstring ConnectReqMsg::GetXml() const
{
    return L"<qsRequest><credentials name=\"" + m_name + L"\" password=\"" + m_password + L"\" ><site contentUrl=\"" +
           m_site + L"\" /> </credentials></qsRequest>";
}

} // namespace OrvaneInternal
