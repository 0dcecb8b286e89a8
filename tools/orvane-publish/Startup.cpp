#include "Startup.h"

#include "Text.h"

#include <orvane/OrvaneServerExt.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace orvpub {
namespace {

std::string Env(const char* name)
{
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

// Creates DIR and its missing parents, owner-only; true when DIR is then a directory.
bool MakeDirectories(const std::string& dir)
{
    for (size_t slash = dir.find('/', 1); slash != std::string::npos; slash = dir.find('/', slash + 1))
        mkdir(dir.substr(0, slash).c_str(), 0700);
    mkdir(dir.c_str(), 0700);
    struct stat st {};
    return stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// $TMPDIR/orvane-publish-UID, ours alone: a directory someone else made, or a
// link put in its place, is not used.
bool PrivateTemporary(std::string& dir)
{
    const std::string base = Env("TMPDIR").empty() ? "/tmp" : Env("TMPDIR");
    dir = base + Printf("/orvane-publish-%u", static_cast<unsigned>(getuid()));
    mkdir(dir.c_str(), 0700);
    struct stat st {};
    return lstat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && st.st_uid == getuid() && (st.st_mode & 0077) == 0;
}

// The state directory, "" without one: $XDG_STATE_HOME, else ~/.local/state
// of a home that exists (a service user's home often does not).
std::string StateHome()
{
    const std::string state = Env("XDG_STATE_HOME");
    if (!state.empty() && state[0] == '/')
        return state;
    struct stat st {};
    const std::string home = Env("HOME");
    if (home.empty() || stat(home.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
        return "";
    return home + "/.local/state";
}

// Makes the next place for the log, in the order above; false when none is left.
bool NextPlace(int& step, std::string& dir, std::vector<std::string>& warnings)
{
    while (step < 3) {
        switch (step++) {
        case 0:
            dir = Env("ORV_SDK_LOGDIR");
            if (!dir.empty())
                return true;
            break;
        case 1:
            dir = StateHome();
            if (dir.empty())
                break;
            dir += "/orvane";
            if (MakeDirectories(dir))
                return true;
            warnings.push_back("cannot create " + dir + " for the log: " + std::strerror(errno));
            break;
        default:
            if (PrivateTemporary(dir))
                return true;
            warnings.push_back("cannot use " + dir + " for the log");
        }
    }
    return false;
}

} // namespace

Started StartLibrary()
{
    Started started;
    int step = 0;
    for (std::string dir; NextPlace(step, dir, started.warnings);) {
        struct stat st {};
        // The library falls back to the working directory for a directory
        // that does not exist; ours must never land there.
        if (stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
            started.warnings.push_back("the log directory " + dir + " does not exist");
            continue;
        }
        setenv("ORV_SDK_LOGDIR", dir.c_str(), 1);
        if (OrvServerAPIInitialize() == ORV_RESULT_Success) {
            started.ok = true;
            started.logPath = dir + "/OrvaneSDKServer.log";
            return started;
        }
        started.warnings.push_back("cannot keep the log in " + dir + ": " + Narrow(OrvGetLastErrorMessage()));
    }
    started.failure = "no place for the library's log";
    return started;
}

} // namespace orvpub
