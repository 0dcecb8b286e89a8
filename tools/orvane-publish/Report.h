// The end of a run: the summary line for people and the --json object for
// scripts, both from the same per-file outcomes.
#pragma once

#include "Console.h"
#include "Options.h"
#include "Publisher.h"

#include <cstdint>
#include <string>
#include <vector>

namespace orvpub {

struct Job {
    std::string path, name; // as given, and the data source name
    Utf16 path16, name16;
    uint64_t bytes = 0;
    Outcome outcome;
};

struct Run {
    const Options* options = nullptr;
    std::string startUpFailure; // the library could not start: nothing was tried
    Outcome signIn;
    std::vector<Job> jobs;
    std::string logPath; // "" when the library keeps no log
    double seconds = 0;
    int signal = 0; // SIGINT or SIGTERM when interrupted
};

// The exit status of the run (see Options.h), before any output failed.
int ExitStatus(const Run& run);
// The summary: on stdout, or on stderr when interrupted; --json instead prints
// one object on stdout. Returns the exit status, kExitOutput when stdout
// could not be written.
int Summarize(const Run& run, Console& console);
// The --json object of a usage error, alone on stdout; returns kExitUsage, or
// kExitOutput when stdout could not be written.
int ReportUsage(const std::string& problem);

} // namespace orvpub
