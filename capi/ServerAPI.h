// Library start-up and shutdown, behind the exported initialise and clean-up
// calls. Neither operation takes a lock: they must not overlap each other or
// any other call into the library. Nothing counts nested start-ups: one
// Cleanup stops the library however often it was initialised.
#pragma once

#include <string>

namespace OrvaneInternal {

class ServerAPI {
  public:
    // Opens the log and starts its writer, then libcurl's global state; does
    // nothing once started. Throws what fails: QRX_InvalidArgument or
    // LogDirectoryUnusable from the log set-up, ServerException 400 from
    // libcurl's start. The library then stays stopped and the next call
    // repeats every step, the log set-up included. The first start also
    // installs fork hooks, so that a forked child gets a log writer of its own.
    static void Initialize();
    // Stops libcurl's global state, then the log writer, and returns once every
    // line queued before the call is in the file; does nothing when stopped.
    // The stopped logger stays installed until the next Initialize.
    static void Cleanup();

    // Where the next start-up puts the log (see InitializeLogger); empty
    // restores the default rule. A running library keeps its log.
    static void SetLogDirectory(const std::wstring& directory);
    // The next start-up opens no log file, until SetLogDirectory.
    static void SetNoLog();
    // The log in use, absolute and in UTF-8; empty while stopped.
    static const std::string& LogPath();
};

} // namespace OrvaneInternal
