// Command line of orvane-publish: options, --help and --version.
#pragma once

#include <string>
#include <vector>

namespace orvpub {

// Exit statuses; --help, the man page and the README list them.
enum ExitCode {
    kExitPublished = 0,    // every file published (or, with --dry-run, checked)
    kExitOther = 1,        // anything else: an unreadable reply, a file gone meanwhile
    kExitUsage = 2,        // bad options or unusable files; nothing was sent
    kExitSignIn = 3,       // sign-in refused (wrong password, unknown or forbidden site)
    kExitRefused = 4,      // the server refused some files (HTTP 4xx: no such project, exists...)
    kExitNetwork = 5,      // no usable answer: network, TLS, proxy, redirects, HTTP 5xx
    kExitTimedOut = 6,     // --connect-timeout or --stall-timeout fired
    kExitInterrupted = 128 // plus the signal: 130 for SIGINT, 143 for SIGTERM
};

struct Options {
    std::string server, user, site, project, name, proxyUser, cacert;
    std::vector<std::string> files;
    bool overwrite = false, dryRun = false, json = false, quiet = false, verbose = false;
    bool passwordStdin = false;
    long jobs = 1, retries = 0;
    long connectTimeout = 30, stallTimeout = 120, maxRedirects = 10; // 0: no limit
};

// Parses the command line. Returns -1 to go on, else the status to exit with
// (0 after --help or --version, kExitUsage after a complaint on stderr).
int ParseOptions(int argc, char** argv, Options& options);

// Prints "orvane-publish: PROBLEM" and the --help hint; returns kExitUsage.
int Usage(const std::string& problem);

} // namespace orvpub
