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
    kExitTimedOut = 6,     // a time limit fired (--connect-timeout, --stall-timeout, ...)
    kExitUncertain = 7,    // the server's answer to a whole upload was lost: it may have landed
    kExitOutput = 8,       // standard output could not be written (the results were lost)
    kExitInterrupted = 128 // plus the signal: 130 for SIGINT, 143 for SIGTERM
};

// Which redirects are followed; the default keeps the password, the token
// and the file with the server they were meant for.
enum class Redirects { SameOrigin, NoDowngrade, Any };

struct Options {
    std::string server, user, site, project, proxyUser, cacert;
    std::vector<std::string> files;
    std::vector<std::string> names; // --name: none, or one per file in order
    bool overwrite = false;
    bool dryRun = false;
    bool json = false;
    bool quiet = false;
    bool verbose = false;
    bool passwordStdin = false;
    bool reuse = true; // one connection and one project lookup per session, no Expect
    Redirects redirects = Redirects::SameOrigin;
    long jobs = 1;
    long retries = 0;
    // Time limits in seconds, 0 for none.
    long connectTimeout = 30;
    long stallTimeout = 120;
    long replyTimeout = 1800;
    long maxTime = 0;
    long maxRedirects = 10; // 0: no limit
};

// Parses the command line. Returns -1 to go on, else the status to exit with
// (0 after --help or --version, kExitUsage after a complaint on stderr).
int ParseOptions(int argc, char** argv, Options& options);

// Prints "orvane-publish: PROBLEM" and the --help hint (with --json also the
// JSON object); returns kExitUsage, or kExitOutput when stdout failed.
int Usage(const std::string& problem);

} // namespace orvpub
