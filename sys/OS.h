// The running process.
#pragma once

class OS {
  public:
    static long getpid();
};
