#include "sys/datetime.h"

#include <ctime>
#include <sys/time.h>

namespace {

datetime Make(bool local)
{
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    std::tm tm{};
    if (local)
        localtime_r(&ts.tv_sec, &tm);
    else
        gmtime_r(&ts.tv_sec, &tm);
    datetime d;
    d.year = tm.tm_year + 1900;
    d.month = tm.tm_mon + 1;
    d.day = tm.tm_mday;
    d.hour = tm.tm_hour;
    d.minute = tm.tm_min;
    d.second = tm.tm_sec;
    d.millisecond = static_cast<int>(ts.tv_nsec / 1000000);
    return d;
}

} // namespace

datetime datetime::now()
{
    return Make(true);
}
datetime datetime::utc()
{
    return Make(false);
}
