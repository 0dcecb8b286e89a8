// Makes a session's transport. s_creator is the seam through which tests put
// a recording transport in place of the libcurl one; the library never sets it.
#pragma once

#include "network/INetwork.h"

#include <functional>
#include <memory>

namespace OrvaneInternal {

class NetworkFactory {
  public:
    static std::shared_ptr<INetwork> Create();

    static std::function<std::shared_ptr<INetwork>()> s_creator;
};

} // namespace OrvaneInternal
