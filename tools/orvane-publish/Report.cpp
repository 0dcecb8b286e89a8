#include "Report.h"

#include <cstdio>

namespace orvpub {
namespace {

size_t Count(const Run& run, Kind kind)
{
    size_t n = 0;
    for (const Job& job : run.jobs)
        n += job.outcome.kind == kind;
    return n;
}

std::string JsonOutcome(const Outcome& out, const char* success = nullptr)
{
    const char* result = success != nullptr && out.kind == Kind::Published ? success : KindName(out.kind);
    return "\"result\": " + Json(result) + Printf(", \"code\": %d, \"status\": %ld", out.code, out.status) +
           ", \"reason\": " + Json(out.reason) + ", \"message\": " + Json(out.message) +
           Printf(", \"attempts\": %d, \"seconds\": %.3f", out.attempts, out.seconds);
}

const char* Overall(const Run& run, int status)
{
    if (run.signal != 0)
        return "interrupted";
    if (status != kExitPublished)
        return "failed";
    return run.options->dryRun ? "checked" : "published";
}

} // namespace

int ExitStatus(const Run& run)
{
    if (run.signal != 0)
        return kExitInterrupted + run.signal;
    if (run.signIn.kind != Kind::Published)
        return ExitCodeOf(run.signIn.kind);
    for (const Job& job : run.jobs) // the first failure in command-line order decides
        if (ExitCodeOf(job.outcome.kind) != kExitPublished)
            return ExitCodeOf(job.outcome.kind);
    return kExitPublished;
}

void Summarize(const Run& run, Console& console)
{
    const Options& o = *run.options;
    const int status = ExitStatus(run);
    const size_t published = Count(run, Kind::Published), total = run.jobs.size();
    const char* files = total == 1 ? "file" : "files";
    // Told on stderr with --json as well: a person may be watching.
    if (run.signal != 0)
        console.Err(Printf("interrupted: %zu of %zu %s published, %zu cancelled, %zu not started", published, total,
                           files, Count(run, Kind::Interrupted), Count(run, Kind::NotStarted)));
    else if (run.signIn.kind != Kind::Published)
        console.Err(Printf("nothing published: sign-in to %s failed", o.server.c_str()));
    if (o.json) {
        std::string text =
            "{\"server\": " + Json(o.server) + ", \"site\": " + Json(o.site) + ", \"project\": " + Json(o.project) +
            ", \"dry_run\": " + (o.dryRun ? "true" : "false") + ", \"result\": " + Json(Overall(run, status)) +
            Printf(", \"exit_code\": %d", status) +
            Printf(", \"published\": %zu, \"files_total\": %zu, \"seconds\": %.3f", published, total, run.seconds) +
            ",\n \"sign_in\": {" + JsonOutcome(run.signIn, "signed-in") + "},\n \"files\": [";
        for (size_t i = 0; i < run.jobs.size(); ++i) {
            const Job& job = run.jobs[i];
            text += std::string(i ? ",\n  " : "\n  ") + "{\"file\": " + Json(job.path) +
                    ", \"name\": " + Json(job.name) +
                    Printf(", \"bytes\": %llu, ", static_cast<unsigned long long>(job.bytes)) +
                    JsonOutcome(job.outcome) + "}";
        }
        console.Wipe();
        std::printf("%s]}\n", text.c_str());
        std::fflush(stdout);
        return;
    }
    if (run.signal != 0 || run.signIn.kind != Kind::Published)
        return;
    if (!o.dryRun) {
        const size_t failed = total - published;
        console.Out(Printf("%zu of %zu %s published to %s, project \"%s\", in %.2f s", published, total, files,
                           o.server.c_str(), o.project.c_str(), run.seconds) +
                    (failed ? Printf("; %zu failed", failed) : ""));
    } else if (status == kExitPublished) {
        console.Out(Printf("dry run: signed in to %s as %s, project \"%s\" found, %zu %s checked; nothing stored",
                           o.server.c_str(), o.user.c_str(), o.project.c_str(), total, files));
    }
}

} // namespace orvpub
