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
    Outcome signIn;
    std::vector<Job> jobs;
    double seconds = 0;
    int signal = 0; // SIGINT or SIGTERM when interrupted
};

// The exit status of the run (see Options.h).
int ExitStatus(const Run& run);
// The summary: on stdout, or on stderr when interrupted; --json instead prints
// one object on stdout.
void Summarize(const Run& run, Console& console);

} // namespace orvpub
