// A calendar time with millisecond resolution, local or UTC.
#pragma once

class datetime {
  public:
    static datetime now(); // local time
    static datetime utc();

    int year = 1970;
    int month = 1; // 1..12
    int day = 1;   // 1..31
    int hour = 0;
    int minute = 0;
    int second = 0;
    int millisecond = 0;
};
