// Library start-up for a tool that may run anywhere: from a service in "/",
// as a user without a home, in a read-only container. The log goes where the
// user's state belongs, never into the working directory.
#pragma once

#include <string>
#include <vector>

namespace orvpub {

struct Started {
    bool ok = false;
    std::string logPath;               // "" when no log could be kept
    std::vector<std::string> warnings; // places tried in vain, for stderr
    std::string failure;               // why the library did not start
};

// Starts the library with its log in the first usable of: $ORV_SDK_LOGDIR,
// $XDG_STATE_HOME/orvane (default ~/.local/state/orvane, created 0700), a
// directory of this user's alone under $TMPDIR, /tmp, /var/tmp or /dev/shm;
// without any of them, with no log file at all (a warning says so).
Started StartLibrary();

} // namespace orvpub
