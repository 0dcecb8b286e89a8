// Sign-in: POST of the credentials to "/api/2.0/auth/signin".
#pragma once

#include "server/ReqMsg.h"

namespace OrvaneInternal {

class ConnectReqMsg : public ReqMsg {
  public:
    ConnectReqMsg(const std::wstring& serverUrl, const std::wstring& name, const std::wstring& password,
                  const std::wstring& site);
    ~ConnectReqMsg() override = default;

    std::wstring GetUrl() const override;
    // The values go in verbatim: the library does not escape them.
    std::wstring GetXml() const override;

    const std::wstring m_name;
    const std::wstring m_password;
    const std::wstring m_site; // the site's content URL; empty for the default site
};

} // namespace OrvaneInternal
