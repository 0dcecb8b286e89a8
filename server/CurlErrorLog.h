// How a libcurl failure reaches the log, wherever the session layer meets
// one: "Curl Error:" and then libcurl's own text, as two lines.
#pragma once

#include "logging/Logger.h"
#include "network/CurlNetworkException.h"

#include <string>

namespace OrvaneInternal {

inline void LogCurlError(const CurlNetworkException& e)
{
    RefCntPtr<Logger> logger = Logger::Get();
    logger->QueueMessage(std::string("Curl Error:"));
    logger->QueueMessage(std::string(e.what()));
}

} // namespace OrvaneInternal
