// orvane-publish: publishes extract files to a data-publishing server from the
// command line. Built only on the exported C API, like any user program.
//
// Threads: the main thread signs in and publishes (with --jobs, one worker
// thread and one session each); a monitor thread redraws the progress meter
// and, when SIGINT or SIGTERM arrives through a self-pipe, cancels every
// running call so that the workers return, sign out and the summary is printed.
#include "Console.h"
#include "Options.h"
#include "Publisher.h"
#include "Report.h"
#include "Startup.h"
#include "Text.h"

#include <orvane/OrvaneServerExt.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <memory>
#include <poll.h>
#include <set>
#include <sys/stat.h>
#include <termios.h>
#include <thread>
#include <unistd.h>

using namespace orvpub;

namespace {

int g_pipe[2] = {-1, -1};              // signal handler -> monitor thread
volatile sig_atomic_t g_signal = 0;    // the first SIGINT/SIGTERM
volatile sig_atomic_t g_promptFd = -1; // the terminal while a prompt has echo off
termios g_promptSaved{};

void OnSignal(int signal)
{
    const int savedErrno = errno;
    if (g_promptFd >= 0) { // give the terminal its echo back before leaving
        tcsetattr(g_promptFd, TCSANOW, &g_promptSaved);
        (void)!write(g_promptFd, "\n", 1);
        _exit(kExitInterrupted + signal);
    }
    if (g_signal != 0) // a second one: the user insists
        _exit(kExitInterrupted + signal);
    g_signal = signal;
    const char byte = static_cast<char>(signal);
    (void)!write(g_pipe[1], &byte, 1);
    errno = savedErrno;
}

bool InstallSignals()
{
    if (pipe2(g_pipe, O_CLOEXEC) != 0)
        return false;
    fcntl(g_pipe[1], F_SETFL, O_NONBLOCK);
    struct sigaction action {};
    action.sa_handler = OnSignal;
    sigemptyset(&action.sa_mask);
    return sigaction(SIGINT, &action, nullptr) == 0 && sigaction(SIGTERM, &action, nullptr) == 0;
}

// Redraws the meter five times a second; on a signal cancels everything.
void Monitor(Console& console, Cancels& cancels)
{
    for (;;) {
        pollfd wait{g_pipe[0], POLLIN, 0};
        if (poll(&wait, 1, 200) > 0) {
            char byte = 0;
            if (read(g_pipe[0], &byte, 1) == 1 && byte == 0)
                return; // the main thread is done
            cancels.CancelAll();
        }
        console.Draw();
    }
}

std::string Chomp(std::string line)
{
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
        line.pop_back();
    return line;
}

// A secret from --password-stdin, the environment, else the terminal without echo.
bool Secret(const char* variable, const std::string& prompt, bool fromStdin, std::string& value)
{
    if (fromStdin) {
        char line[4096];
        if (std::fgets(line, sizeof line, stdin) == nullptr)
            return Usage("--password-stdin: no line on standard input"), false;
        value = Chomp(line);
        return true;
    }
    if (char* fromEnv = std::getenv(variable)) {
        value = fromEnv;
        // Gone from the environment and from the process's memory, where
        // /proc/PID/environ would show it to anyone who may read that.
        std::memset(fromEnv, 0, value.size());
        unsetenv(variable);
        return true;
    }
    const int tty = open("/dev/tty", O_RDWR | O_CLOEXEC);
    termios saved{};
    if (tty < 0 || tcgetattr(tty, &saved) != 0) {
        if (tty >= 0)
            close(tty);
        return Usage(Printf("no terminal to ask for the %s; set %s or use --password-stdin", prompt.c_str(), variable)),
               false;
    }
    g_promptSaved = saved;
    termios quiet = saved;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    g_promptFd = tty;
    tcsetattr(tty, TCSAFLUSH, &quiet);
    const std::string ask = prompt + ": ";
    (void)!write(tty, ask.data(), ask.size());
    std::string line;
    char ch;
    while (read(tty, &ch, 1) == 1 && ch != '\n')
        line += ch;
    tcsetattr(tty, TCSAFLUSH, &saved);
    g_promptFd = -1;
    (void)!write(tty, "\n", 1);
    close(tty);
    value = Chomp(line);
    return true;
}

std::string Stem(const std::string& path)
{
    const size_t slash = path.find_last_of('/');
    std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    const size_t dot = name.find_last_of('.');
    return dot != std::string::npos && dot > 0 ? name.erase(dot) : name;
}

// Why the file cannot be published, "" when it can.
std::string Unusable(const std::string& file, struct stat& st)
{
    if (stat(file.c_str(), &st) != 0)
        return std::strerror(errno);
    if (S_ISDIR(st.st_mode))
        return "is a directory; name the .qrx files in it";
    if (file.size() < 4 || file.compare(file.size() - 4, 4, ".qrx") != 0)
        return "is not a .qrx file (the extension is lower-case .qrx)";
    if (!S_ISREG(st.st_mode) || access(file.c_str(), R_OK) != 0)
        return "cannot be read";
    return "";
}

// Checks every file before anything is sent; false after saying why. An
// unusable file stays in the run with its reason, for --json.
bool CheckFiles(const Options& o, std::vector<Job>& jobs)
{
    bool usable = true;
    std::set<std::pair<dev_t, ino_t>> seen;
    std::map<std::string, std::string> byName; // data source name -> the file published as it
    for (size_t i = 0; i < o.files.size(); ++i) {
        Job job;
        job.path = o.files[i];
        job.name = o.names.empty() ? Stem(job.path) : o.names[i];
        struct stat st {};
        std::string problem = Unusable(job.path, st);
        std::string error = "ExtractUnusable";
        if (problem.empty() && !seen.insert({st.st_dev, st.st_ino}).second) {
            std::fprintf(stderr, "orvane-publish: warning: %s given more than once; published once\n",
                         Printable(job.path).c_str());
            continue;
        }
        if (problem.empty() && (!ToUtf16(job.path, job.path16) || !ToUtf16(job.name, job.name16)))
            problem = "is not UTF-8 text";
        if (problem.empty() && !byName.emplace(job.name, job.path).second) {
            // Published one after the other, the second would replace the first.
            problem = "would be published as \"" + job.name + "\" like " + byName[job.name] +
                      "; give each file its own --name";
            error = "Usage";
        }
        job.bytes = static_cast<uint64_t>(st.st_size);
        if (!problem.empty()) {
            std::fprintf(stderr, "orvane-publish: %s: %s\n", Printable(job.path).c_str(), Printable(problem).c_str());
            job.outcome.kind = Kind::Unusable;
            job.outcome.error = error;
            job.outcome.message = problem;
            usable = false;
        }
        jobs.push_back(std::move(job));
    }
    return usable;
}

// The files not tried once the project was found missing share its refusal.
void NotSentForMissingProject(std::vector<Job>& jobs)
{
    const auto missing = std::find_if(
        jobs.begin(), jobs.end(), [](const Job& job) { return job.outcome.failure == ORV_FAILURE_ProjectNotFound; });
    Outcome notSent = missing->outcome;
    notSent.attempts = 0;
    notSent.uploads = 0;
    notSent.seconds = 0;
    for (Job& job : jobs)
        if (job.outcome.kind == Kind::NotStarted)
            job.outcome = notSent;
}

// What the workers of a batch share.
struct Batch {
    std::atomic<size_t> next{0};             // the next job to take
    std::atomic<bool> projectMissing{false}; // no file can be published: stop
};

// Publishes files until none is left, a signal came or the project turned
// out not to exist; one session per worker.
void Work(Session& session, Run& run, Batch& batch, Cancels& cancels, Console& console)
{
    const Options& o = *run.options;
    Transfer transfer;
    for (size_t i; !cancels.Interrupted() && !batch.projectMissing && (i = batch.next++) < run.jobs.size();) {
        Job& job = run.jobs[i];
        const size_t slash = job.path.find_last_of('/');
        transfer.label = Printable(slash == std::string::npos ? job.path : job.path.substr(slash + 1));
        transfer.bytes = job.bytes;
        console.Start(transfer);
        job.outcome = session.Publish(job.path, job.path16, job.name16, transfer);
        console.Finish(transfer);
        const Outcome& out = job.outcome;
        if (out.failure == ORV_FAILURE_ProjectNotFound) {
            // Every file would meet the same refusal: told once.
            if (!batch.projectMissing.exchange(true))
                console.Err(out.message);
        } else if (out.kind == Kind::Published) {
            console.Out(Printf("published %s -> %s/%s (%s in %.2f s, %s)", job.path.c_str(), o.project.c_str(),
                               job.name.c_str(), FormatBytes(static_cast<double>(job.bytes)).c_str(), out.seconds,
                               FormatRate(out.seconds > 0 ? job.bytes / out.seconds : 0).c_str()));
        } else if (out.kind != Kind::Interrupted) {
            console.Err(job.path + ": " + out.message);
        }
        if (o.verbose && out.kind != Kind::Published)
            console.Err(Printf("%s: library result %d, HTTP status %ld, %d attempt(s): %s", job.path.c_str(), out.code,
                               out.status, out.attempts, out.libraryText.c_str()));
    }
}

} // namespace

int main(int argc, char** argv)
{
    Options o;
    const int parsed = ParseOptions(argc, argv, o);
    if (parsed >= 0)
        return parsed;
    Run run;
    run.options = &o;
    // The tool's own exit status tells a lost write, not a signal.
    std::signal(SIGPIPE, SIG_IGN);
    uint64_t bytes = 0;
    const bool usable = CheckFiles(o, run.jobs);
    for (const Job& job : run.jobs)
        bytes += job.bytes;
    // The meter only for a person watching; with several jobs one line for the batch.
    Console console(!o.quiet && isatty(STDERR_FILENO), o.jobs > 1, !o.quiet && !o.json, run.jobs.size(), bytes);
    if (!usable)
        return Summarize(run, console);
    if (!InstallSignals())
        return std::perror("orvane-publish: signals"), kExitOther;

    Settings settings;
    settings.options = &o;
    std::string password, proxyPassword;
    if (!Secret("ORVANE_PASSWORD", "Password for " + o.user, o.passwordStdin, password) ||
        (!o.proxyUser.empty() &&
         !Secret("ORVANE_PROXY_PASSWORD", "Proxy password for " + o.proxyUser, false, proxyPassword)))
        return kExitUsage;
    if (!ToUtf16(o.server, settings.server) || !ToUtf16(o.user, settings.user) || !ToUtf16(o.site, settings.site) ||
        !ToUtf16(o.project, settings.project) || !ToUtf16(o.proxyUser, settings.proxyUser) ||
        !ToUtf16(o.cacert, settings.cacert) || !ToUtf16(password, settings.password) ||
        !ToUtf16(proxyPassword, settings.proxyPassword))
        return Usage("arguments and passwords must be UTF-8 text");

    const Started started = StartLibrary();
    for (const std::string& warning : started.warnings)
        console.Err("warning: " + warning);
    run.logPath = started.logPath;
    if (!started.ok) {
        run.startUpFailure = "library start-up failed: " + started.failure;
        console.Err(run.startUpFailure);
        return Summarize(run, console);
    }
    if (o.verbose)
        console.Err("the library's log: " + (run.logPath.empty() ? "none" : run.logPath));
    Cancels cancels; // a signal that came before the monitor starts waits in the pipe
    std::thread monitor(Monitor, std::ref(console), std::ref(cancels));
    const auto start = std::chrono::steady_clock::now();
    {
        // One sign-in first, so that a refusal is told once, not once per job.
        Session first(settings, cancels, console);
        run.signIn = first.SignIn();
        if (run.signIn.kind != Kind::Published) {
            if (run.signIn.kind == Kind::SignInRefused)
                console.Err(run.signIn.message);
            else if (run.signIn.kind != Kind::Interrupted)
                console.Err("sign-in: " + run.signIn.message);
            if (o.verbose)
                console.Err(Printf("sign-in: library result %d, HTTP status %ld: %s", run.signIn.code,
                                   run.signIn.status, run.signIn.libraryText.c_str()));
        } else if (o.dryRun) {
            const Outcome checked = first.FindProject();
            for (Job& job : run.jobs)
                job.outcome = checked;
            if (checked.kind != Kind::Checked && checked.kind != Kind::Interrupted)
                console.Err(checked.message);
        } else {
            Batch batch;
            std::vector<std::thread> workers;
            const size_t extra = std::min<size_t>(static_cast<size_t>(o.jobs), run.jobs.size()) - 1;
            for (size_t w = 0; w < extra; ++w)
                workers.emplace_back([&] {
                    Session session(settings, cancels, console);
                    const Outcome signIn = session.SignIn();
                    if (signIn.kind == Kind::Published)
                        Work(session, run, batch, cancels, console);
                    else if (o.verbose)
                        console.Err("an extra session could not sign in: " + signIn.message);
                });
            Work(first, run, batch, cancels, console);
            for (std::thread& worker : workers)
                worker.join();
            if (batch.projectMissing)
                NotSentForMissingProject(run.jobs);
        }
    } // every session signed out and closed
    run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const char stop = 0;
    (void)!write(g_pipe[1], &stop, 1);
    monitor.join();
    OrvServerAPICleanup();
    run.signal = g_signal;
    return Summarize(run, console);
}
