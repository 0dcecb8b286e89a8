// Logging's part of library start-up.
#pragma once

#include "sys/RefCntPtr.h"
#include "sys/Thread.h"

#include <stdexcept>
#include <string>

namespace OrvaneInternal {

// Start-up's failure for a log directory the host chose: what() says which
// directory and why, in UTF-8.
class LogDirectoryUnusable : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Opens "OrvaneSDKServer.log" in `directory` when it is not empty; else in the
// directory named by ORV_SDK_LOGDIR, or in the current directory when the
// variable is unset or names no directory. Installs that file logger as the
// process-wide logger, starts its writer on a new thread kept in
// `loggerThread`, logs the process id as the first line, and returns the
// file's absolute path in UTF-8.
//
// The caller owns the slot. A writer still running in it (a start-up that
// failed after this step) is stopped and joined before it is replaced; the
// installed logger must be the one it runs. The new logger is opened while
// the old one is still installed, so a re-start in the same process takes the
// next free name while the old one holds its file.
//
// When no file can be opened the slot and the installed logger are left as
// they were, and it throws: LogDirectoryUnusable for a chosen directory,
// QRX_InvalidArgument otherwise.
std::string InitializeLogger(RefCntPtr<Thread>& loggerThread, const std::wstring& directory);

// Start-up for a host that asked for no log file: a writer still running in
// the slot is stopped and joined, and the null logger takes every line.
void InitializeWithoutLog(RefCntPtr<Thread>& loggerThread);

} // namespace OrvaneInternal
