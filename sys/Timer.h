// Elapsed-time clock on the monotonic clock.
#pragma once

#include <chrono>

class Timer {
  public:
    Timer() { Start(); }
    void Start() { m_start = std::chrono::steady_clock::now(); }
    void Reset() { Start(); }
    double ElapsedSeconds() const
    {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - m_start).count();
    }

  private:
    std::chrono::steady_clock::time_point m_start;
};
