// Logging's part of library start-up.
#pragma once

#include "sys/RefCntPtr.h"
#include "sys/Thread.h"

namespace OrvaneInternal {

// Opens "OrvaneSDKServer.log" in the directory named by ORV_SDK_LOGDIR, or in
// the current directory when the variable is unset or names no directory;
// installs that file logger as the process-wide logger, starts its writer on a
// new thread kept in `loggerThread`, and logs the process id as the first line.
//
// The caller owns the slot. A writer still running in it (a start-up that
// failed after this step) is stopped and joined before it is replaced; the
// installed logger must be the one it runs. The new logger is opened while
// the old one is still installed, so a re-start in the same process takes the
// next free name while the old one holds its file.
//
// Throws QRX_InvalidArgument when no file can be opened; the slot and the
// installed logger are then left as they were.
void InitializeLogger(RefCntPtr<Thread>& loggerThread);

} // namespace OrvaneInternal
