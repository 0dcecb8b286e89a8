#include "Report.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>

namespace orvpub {
namespace {

using Json = nlohmann::ordered_json;

// Version of the --json object; raised only when a field changes meaning or goes.
const int kFormat = 1;

size_t Count(const Run& run, Kind kind)
{
    size_t n = 0;
    for (const Job& job : run.jobs)
        n += job.outcome.kind == kind;
    return n;
}

double Milliseconds(double seconds)
{
    return std::round(seconds * 1000) / 1000;
}

Json Nullable(const std::string& text)
{
    return text.empty() ? Json() : Json(text);
}

Json OutcomeJson(const Outcome& out, const char* success = nullptr)
{
    Json json;
    json["result"] = success != nullptr && out.kind == Kind::Published ? success : KindName(out.kind);
    json["error"] = Nullable(out.error);
    json["status"] = out.status;
    json["library_code"] = out.code;
    json["reason"] = out.reason;
    json["message"] = out.message;
    json["attempts"] = out.attempts;
    json["uploads"] = out.uploads;
    json["seconds"] = Milliseconds(out.seconds);
    return json;
}

// The outcome that decided the exit status: the sign-in's, else the first
// failed file's in command-line order.
const Outcome* Deciding(const Run& run)
{
    if (run.signIn.kind != Kind::Published && run.signIn.kind != Kind::NotStarted)
        return &run.signIn;
    for (const Job& job : run.jobs)
        if (ExitCodeOf(job.outcome.kind) != kExitPublished)
            return &job.outcome;
    return nullptr;
}

const char* Overall(const Run& run, int status)
{
    if (run.signal != 0)
        return "interrupted";
    if (status == kExitUsage)
        return "usage-error";
    if (status == kExitUncertain)
        return "uncertain";
    if (status != kExitPublished)
        return "failed";
    return run.options->dryRun ? "checked" : "published";
}

// Writes the object and a line end; false when stdout failed.
bool Write(const Json& json)
{
    const std::string text = json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
    const bool written = std::fwrite(text.data(), 1, text.size(), stdout) == text.size();
    return std::fflush(stdout) == 0 && written && !std::ferror(stdout);
}

int OutputLost(Console& console)
{
    console.Err(std::string("cannot write the results to standard output: ") + std::strerror(errno));
    return kExitOutput;
}

} // namespace

int ExitStatus(const Run& run)
{
    if (run.signal != 0)
        return kExitInterrupted + run.signal;
    if (!run.startUpFailure.empty())
        return kExitOther;
    const Outcome* deciding = Deciding(run);
    return deciding == nullptr ? kExitPublished : ExitCodeOf(deciding->kind);
}

int Summarize(const Run& run, Console& console)
{
    const Options& o = *run.options;
    const int status = ExitStatus(run);
    const size_t published = Count(run, Kind::Published);
    const size_t total = run.jobs.size();
    const char* files = total == 1 ? "file" : "files";
    const bool started = run.startUpFailure.empty() && status != kExitUsage;
    // Told on stderr with --json as well: a person may be watching.
    if (run.signal != 0)
        console.Err(Printf("interrupted: %zu of %zu %s published, %zu cancelled, %zu not started", published, total,
                           files, Count(run, Kind::Interrupted), Count(run, Kind::NotStarted)));
    else if (started && run.signIn.kind != Kind::Published)
        console.Err(Printf("nothing published: sign-in to %s failed", o.server.c_str()));
    if (o.json) {
        const Outcome* deciding = Deciding(run);
        Json json;
        json["format"] = kFormat;
        json["result"] = Overall(run, status);
        json["exit_code"] = status;
        json["error"] = !run.startUpFailure.empty() ? Json("StartUp") : deciding ? Nullable(deciding->error) : Json();
        json["message"] = !run.startUpFailure.empty() ? run.startUpFailure : deciding ? deciding->message : "";
        json["server"] = o.server;
        json["site"] = o.site;
        json["project"] = o.project;
        json["dry_run"] = o.dryRun;
        json["published"] = published;
        json["files_total"] = total;
        json["seconds"] = Milliseconds(run.seconds);
        json["log"] = Nullable(run.logPath);
        json["sign_in"] = run.signIn.kind == Kind::NotStarted ? Json() : OutcomeJson(run.signIn, "signed-in");
        json["files"] = Json::array();
        for (const Job& job : run.jobs) {
            Json entry;
            entry["file"] = job.path;
            entry["name"] = job.name;
            entry["bytes"] = job.bytes;
            entry.update(OutcomeJson(job.outcome));
            json["files"].push_back(entry);
        }
        console.Wipe();
        return Write(json) || run.signal != 0 ? status : OutputLost(console);
    }
    if (run.signal == 0 && started && run.signIn.kind == Kind::Published) {
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
    return console.OutputLost() && run.signal == 0 ? OutputLost(console) : status;
}

int ReportUsage(const std::string& problem)
{
    Json json;
    json["format"] = kFormat;
    json["result"] = "usage-error";
    json["exit_code"] = kExitUsage;
    json["error"] = "Usage";
    json["message"] = problem;
    return Write(json) ? kExitUsage : kExitOutput;
}

} // namespace orvpub
