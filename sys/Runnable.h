// Something a Thread can execute.
#pragma once

#include "sys/RefCntObject.h"

class Runnable : public RefCntObject {
  public:
    virtual void Run() = 0;
};
