// A message as the text the writer appends: split at "\n", every line
// prefixed with the same header and ended with a newline. A final newline
// does not start another (empty) line, and an empty message has no lines.
#pragma once

#include <string>
#include <string_view>

namespace OrvaneInternal {

std::wstring LinesOf(std::string_view header, std::wstring_view message);
// Narrow messages are UTF-8; a line that is not is kept byte for byte (see
// WidenBytes) while the message's good lines still come out as text.
std::wstring LinesOf(std::string_view header, const std::string& message);

} // namespace OrvaneInternal
