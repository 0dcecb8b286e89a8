// A message as the text the writer appends: split at "\n", every line
// prefixed with the same header and ended with a newline. A final newline
// does not start another (empty) line, and an empty message has no lines.
#pragma once

#include <string>
#include <string_view>

namespace OrvaneInternal {

std::wstring LinesOf(std::string_view header, std::wstring_view message);
// Narrow messages are UTF-8; a line that is not is widened byte by byte, each
// byte taken as a signed char (bytes from 0x80 up become units -128..-1),
// while the message's good lines still come out as text.
std::wstring LinesOf(std::string_view header, const std::string& message);

// The bytes the writer appends for `lines`: units -128..-1 go back to the file
// as the bytes they were widened from, so a line that was not UTF-8 reaches the
// file exactly as it was logged; everything else is UTF-8, with U+FFFD for
// units that are not Unicode. Never throws a conversion error.
std::string BytesOf(std::wstring_view lines);

} // namespace OrvaneInternal
