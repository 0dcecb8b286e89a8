// The upload's reply, checked for shape only:
// qsResponse / datasource / (project | owner | tags / tag).
#pragma once

#include "server/RespMsg.h"

#include <cstdint>
#include <string>

namespace OrvaneInternal {

class PublishExtRespMsg : public RespMsg {
  public:
    // ServerException 300 for a reply that is not XML, 403 for other elements.
    explicit PublishExtRespMsg(const std::string& reply);
    ~PublishExtRespMsg() override = default;

    int32_t m_depth = 0;
};

} // namespace OrvaneInternal
