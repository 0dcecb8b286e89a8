// Log text to file bytes and back without ever failing on bad input: text
// that is not valid Unicode is written as closely as it can be rather than
// dropped.
#pragma once

#include <string>
#include <string_view>

namespace OrvaneInternal {

// UTF-8 for text that may hold units no converter accepts. A unit in
// -128..-1 is a byte that a narrow message carried outside UTF-8 (see
// WidenBytes) and goes back to the file as that byte, so such a line reaches
// the file exactly as it was logged; any other unit that is not a Unicode
// scalar value becomes U+FFFD. Never throws a conversion error.
std::string EncodeUtf8(const std::wstring& text);

// Byte-for-byte widening of a line that is not UTF-8. Each byte is taken as a
// signed char, so bytes from 0x80 up become negative units; EncodeUtf8
// recognises them and restores the bytes.
std::wstring WidenBytes(std::string_view line);

bool IsAscii(std::string_view text);

} // namespace OrvaneInternal
