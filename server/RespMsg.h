// Base of the response messages; each parses the reply text in its constructor.
#pragma once

namespace OrvaneInternal {

class RespMsg {
  public:
    virtual ~RespMsg() = default;
};

} // namespace OrvaneInternal
