// Runs a Runnable on a thread of its own. The thread holds a reference on the
// Runnable until Run returns. Join must be called before the last reference to
// the Thread goes; a Thread destroyed while still joinable joins first.
#pragma once

#include "sys/RefCntPtr.h"
#include "sys/Runnable.h"

#include <thread>

class Thread : public RefCntObject {
  public:
    explicit Thread(RefCntPtr<Runnable> runnable);
    ~Thread() override;

    void Start();
    void Join();
    bool Joinable() const { return m_thread.joinable(); }

  private:
    RefCntPtr<Runnable> m_runnable;
    std::thread m_thread;
};
