#include "server/SignOutReqMsg.h"

namespace OrvaneInternal {

SignOutReqMsg::SignOutReqMsg(const std::wstring& serverUrl, const std::wstring& token)
    : ReqMsg(serverUrl, std::wstring(), token, ReqMsg::Buffer, RestRequest::Post, ReqMsg::Xml)
{
}

std::wstring SignOutReqMsg::GetUrl() const
{
    return m_host + L"/api/2.0/auth/signout";
}

} // namespace OrvaneInternal
