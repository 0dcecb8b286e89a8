#include "network/NetworkFactory.h"

#include "network/CurlNetwork.h"

namespace OrvaneInternal {

std::function<std::shared_ptr<INetwork>()> NetworkFactory::s_creator;

std::shared_ptr<INetwork> NetworkFactory::Create()
{
    if (s_creator)
        return s_creator();
    return std::make_shared<CurlNetwork>();
}

} // namespace OrvaneInternal
