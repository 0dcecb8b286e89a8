// Sign-out: an empty POST to "/api/2.0/auth/signout" carrying the token, with
// the same header lines as every other request.
#pragma once

#include "server/ReqMsg.h"

namespace OrvaneInternal {

class SignOutReqMsg : public ReqMsg {
  public:
    SignOutReqMsg(const std::wstring& serverUrl, const std::wstring& token);
    ~SignOutReqMsg() override = default;

    std::wstring GetUrl() const override;
};

} // namespace OrvaneInternal
