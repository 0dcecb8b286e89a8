// The sign-in reply: qsResponse / credentials(token) / site(id) | user.
#pragma once

#include "server/RespMsg.h"

#include <cstdint>
#include <string>

namespace OrvaneInternal {

class ConnectRespMsg : public RespMsg {
  public:
    // Parses at once: ServerException 300 for a reply that is not XML or whose
    // token or site id holds a control character, 403 for one with other
    // elements. Missing attributes leave their field empty.
    explicit ConnectRespMsg(const std::string& reply);
    ~ConnectRespMsg() override = default;

    int32_t m_depth = 0;
    std::wstring m_token;
    std::wstring m_siteId;
};

} // namespace OrvaneInternal
