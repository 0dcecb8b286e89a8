// File facts the rest of the library needs.
#pragma once

#include <cstdint>
#include <string>

class File {
  public:
    // Size in bytes of the file at `path` (UTF-8), or -1 when it cannot be read.
    static int64_t Size(const std::string& path);
};
