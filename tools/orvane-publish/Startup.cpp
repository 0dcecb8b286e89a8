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

// DIR made (when missing) for this user alone: a directory someone else
// made, or a link put in its place, is not used.
bool PrivateDirectory(const std::string& dir)
{
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

struct Place {
    enum How { AsIs, Created, Private };
    std::string dir;
    How how;
};

// Where the log may go, in order; nothing is made before it is tried.
std::vector<Place> Places()
{
    std::vector<Place> places;
    if (!Env("ORV_SDK_LOGDIR").empty())
        places.push_back({Env("ORV_SDK_LOGDIR"), Place::AsIs});
    if (!StateHome().empty())
        places.push_back({StateHome() + "/orvane", Place::Created});
    // A read-only system may still have one of these writable.
    const std::string user = Printf("/orvane-publish-%u", static_cast<unsigned>(getuid()));
    for (const std::string& base :
         {Env("TMPDIR"), std::string("/tmp"), std::string("/var/tmp"), std::string("/dev/shm")})
        if (!base.empty() && base[0] == '/' && (places.empty() || places.back().dir != base + user))
            places.push_back({base + user, Place::Private});
    return places;
}

// Makes the place ready for the log; false when it cannot be.
bool Prepare(const Place& place, std::vector<std::string>& warnings)
{
    switch (place.how) {
    case Place::AsIs:
        return true;
    case Place::Created:
        if (MakeDirectories(place.dir))
            return true;
        warnings.push_back("cannot create " + place.dir + " for the log: " + std::strerror(errno));
        return false;
    case Place::Private:
        break;
    }
    return PrivateDirectory(place.dir);
}

} // namespace

Started StartLibrary()
{
    Started started;
    for (const Place& place : Places()) {
        Utf16 dir;
        if (!Prepare(place, started.warnings) || !ToUtf16(place.dir, dir))
            continue;
        OrvServerAPISetLogDirectory(dir.c_str());
        if (OrvServerAPIInitialize() == ORV_RESULT_Success) {
            started.ok = true;
            const char* path = OrvServerAPIGetLogPath();
            started.logPath = path != nullptr ? path : "";
            return started;
        }
        started.warnings.push_back("no log in " + place.dir + ": " + Narrow(OrvGetLastErrorMessage()));
    }
    // Publishing matters more than its log: go on without one.
    started.warnings.push_back("no directory can hold the library's log; publishing without one");
    const unsigned short none[] = {0};
    OrvServerAPISetLogDirectory(none);
    if (OrvServerAPIInitialize() == ORV_RESULT_Success) {
        started.ok = true;
        return started;
    }
    started.failure = Narrow(OrvGetLastErrorMessage());
    return started;
}

} // namespace orvpub
