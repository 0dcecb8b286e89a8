// One page of projects: qsResponse / pagination(pageNumber, pageSize,
// totalAvailable) | projects / project(name, id).
#pragma once

#include "server/RespMsg.h"

#include <cstdint>
#include <string>
#include <unordered_map>

namespace OrvaneInternal {

class QueryProjRespMsg : public RespMsg {
  public:
    // Parses at once: ServerException 300 for a reply that is not XML, 403 for
    // other elements; a pagination value that is not a number throws the
    // standard library's "stoul" errors unchanged.
    explicit QueryProjRespMsg(const std::string& reply);
    ~QueryProjRespMsg() override = default;

    int32_t m_depth = 0;
    // 0 when the reply has no pagination element, so the page check fails.
    uint64_t m_pageNumber = 0;
    uint64_t m_pageSize = 0;
    uint64_t m_totalAvailable = 0;
    // Name -> id; projects with an empty name or id are skipped, and a later
    // project of the same name replaces an earlier one.
    std::unordered_map<std::wstring, std::wstring> m_projects{10};
};

} // namespace OrvaneInternal
