// The header of every log line: "2016-05-11 22:03:09.042 (140213): ", that is
// date, time with milliseconds and the thread id (padded to 4 digits).
// Formatted on the caller's thread, so it names the thread that logged.
#pragma once

#include "sys/datetime.h"

#include <cstddef>
#include <string_view>

namespace OrvaneInternal {

class LineHeader {
  public:
    // Every field as printf's "%0*d" would print it, the year unpadded;
    // values the clock never gives (negative ones) come out as printf has them.
    LineHeader(const datetime& time, unsigned long threadId);

    std::string_view View() const { return std::string_view(m_text, m_length); }

  private:
    // Seven int fields of up to 11 characters each, a 20-digit thread id and
    // 11 characters of punctuation.
    char m_text[112];
    std::size_t m_length;
};

} // namespace OrvaneInternal
