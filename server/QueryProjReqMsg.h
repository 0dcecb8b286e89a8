// One page of the site's projects: GET ".../projects?pageSize=100&pageNumber=N".
#pragma once

#include "server/ReqMsg.h"

namespace OrvaneInternal {

class QueryProjReqMsg : public ReqMsg {
  public:
    // Fixed on purpose: the reply checks rely on it too.
    static constexpr int kPageSize = 100;

    QueryProjReqMsg(const std::wstring& serverUrl, const std::wstring& siteId, const std::wstring& token,
                    unsigned long pageNumber);
    ~QueryProjReqMsg() override = default;

    std::wstring GetUrl() const override;

    const uint64_t m_pageNumber; // 1-based
};

} // namespace OrvaneInternal
