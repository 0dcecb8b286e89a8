// The server's own explanation of a refused reply, as text for the caller.
#pragma once

#include <cstddef>
#include <string>

namespace OrvaneInternal {

// Longest reason kept, in characters.
constexpr std::size_t kServerReasonLimit = 4096;

// "summary: detail" from an error document
// (<error><summary>S</summary><detail>D</detail></error>, anywhere in the
// reply), else the reply's own text; at most kServerReasonLimit characters.
// Never throws for any reply bytes (only for lack of memory).
std::wstring ServerReason(const std::string& body);

} // namespace OrvaneInternal
