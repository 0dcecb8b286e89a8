#include "sys/OS.h"

#include <unistd.h>

long OS::getpid()
{
    return static_cast<long>(::getpid());
}
