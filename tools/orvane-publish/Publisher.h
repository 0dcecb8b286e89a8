// Sessions with the server on the library's C API: each handle set up with
// the tool's time limits, certificates and progress callback; sign-in and
// publish with retries of transient failures; every failure sorted, by the
// library's failure kind alone, into what to tell and which exit status.
#pragma once

#include "Console.h"
#include "Options.h"
#include "Text.h"

#include <orvane/OrvaneServerExt.h>

#include <condition_variable>
#include <mutex>
#include <set>
#include <string>

namespace orvpub {

enum class Kind {
    NotStarted,
    Published,
    Checked,
    Unusable, // refused by the tool's own checks before anything was sent
    SignInRefused,
    Refused,
    Network,
    TimedOut,
    Uncertain, // the answer to a whole upload was lost: it may have landed
    Interrupted,
    Other
};

// No reply of a publishing server comes near this; a larger one is refused
// as it arrives rather than held in memory.
const uint64_t kMaxReplyBytes = 16u << 20;
// A run's project lookup serves it whole, up to this many seconds.
const long kProjectCacheSeconds = 3600;
// The longest a sign-out may take at the end of a run, a signal's included.
const long kSignOutSeconds = 5;

const char* KindName(Kind kind); // the "result" of --json
int ExitCodeOf(Kind kind);       // kExitInterrupted for Interrupted (the signal is added later)

struct Outcome {
    Kind kind = Kind::NotStarted;
    int code = 0;    // the library's result code
    long status = 0; // the HTTP status of the last reply
    ORV_FAILURE failure = ORV_FAILURE_None;
    long transportCode = 0;  // libcurl's code for the failure, 0 when none
    std::string error;       // the failure kind's name ("" when none)
    std::string libraryText; // the library's last-error text
    std::string reason;      // the server's own reason for a refusal
    std::string message;     // what to tell a person
    bool transient = false;
    int attempts = 0;
    int uploads = 0; // bodies sent whole
    double seconds = 0;
};

// The handles a signal must stop, and the waits between retries it cuts short.
class Cancels {
  public:
    void Add(void* handle);
    void Remove(void* handle); // before the handle is closed
    void CancelAll();          // from the monitor thread, once a signal came
    bool Interrupted();
    bool Sleep(double seconds); // false when interrupted meanwhile

  private:
    std::mutex m_lock;
    std::condition_variable m_wake;
    std::set<void*> m_handles;
    bool m_interrupted = false;
};

// Everything the sessions share, converted for the library once.
struct Settings {
    const Options* options = nullptr;
    Utf16 server, user, password, site, project, proxyUser, proxyPassword, cacert;
};

class Session {
  public:
    Session(const Settings& settings, Cancels& cancels, Console& console);
    ~Session(); // signs out on the server and closes the handle
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    Outcome SignIn();
    Outcome Publish(const std::string& label, const Utf16& path, const Utf16& name, Transfer& transfer);
    // Looks the project up without uploading (--dry-run); Checked when found.
    Outcome FindProject();

  private:
    enum class Call { SignIn, Lookup, Upload };
    template <class Attempt> Outcome Retrying(const std::string& label, Call call, Attempt attempt);
    Outcome Classify(int code, bool signIn);
    bool WholeBodySent(); // by the last call: the server may have it all
    static int OnProgress(void* self, uint64_t sent, uint64_t total);

    const Settings& m_settings;
    Cancels& m_cancels;
    Console& m_console;
    void* m_handle = nullptr;
    int m_setupResult = 0;
    bool m_signedIn = false;
    Transfer* m_transfer = nullptr;
};

} // namespace orvpub
