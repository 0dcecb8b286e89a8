// The log file's own stream. It writes through a descriptor opened
// close-on-exec, which std::ofstream cannot do, so that programs the host
// starts do not keep the log open.
#pragma once

#include <ext/stdio_filebuf.h>

#include <unistd.h>

#include <ostream>

namespace OrvaneInternal {

class LogFileStream : public std::ostream {
  public:
    // Takes ownership of `fd`.
    explicit LogFileStream(int fd) : std::ostream(nullptr), m_buffer(fd, std::ios_base::out | std::ios_base::app)
    {
        if (m_buffer.is_open())
            rdbuf(&m_buffer);
        else
            ::close(fd); // rdbuf stays null, so the stream reports bad
    }

  private:
    __gnu_cxx::stdio_filebuf<char> m_buffer;
};

} // namespace OrvaneInternal
