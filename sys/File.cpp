#include "sys/File.h"

#include <sys/stat.h>

int64_t File::Size(const std::string& path)
{
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0)
        return -1;
    return static_cast<int64_t>(st.st_size);
}
