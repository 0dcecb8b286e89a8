// Text helpers of orvane-publish: UTF-8 <-> the library's UTF-16 and wide
// strings, text made safe for a terminal, and the sizes, rates and durations
// people read.
#pragma once

#include <cstdint>
#include <string>

namespace orvpub {

using Utf16 = std::basic_string<unsigned short>;

// UTF-8 to UTF-16; false for bytes that are not UTF-8.
bool ToUtf16(const std::string& in, Utf16& out);
// A wide string from the library (null: "") to UTF-8; bad units become U+FFFD.
std::string Narrow(const wchar_t* text);
// "TEXT. Hint." whether or not TEXT ends its sentence itself; TEXT without a hint.
std::string WithHint(const std::string& text, const std::string& hint);
// TEXT with control characters escaped as JSON escapes them ("\n", "\u001b"),
// so that a file name cannot split a line or drive the terminal.
std::string Printable(const std::string& text);

std::string FormatBytes(double bytes);         // "4.0 MiB"
std::string FormatRate(double bytesPerSecond); // "12.3 MiB/s"
std::string FormatClock(double seconds);       // "0:07", "1:02:03"
std::string Printf(const char* format, ...) __attribute__((format(printf, 1, 2)));

} // namespace orvpub
