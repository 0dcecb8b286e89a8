#include "logging/LogListener.h"

#include "sys/Errors.h"

#include <atomic>
#include <string>
#include <thread>

namespace OrvaneInternal {

namespace {

struct Installed {
    LogListener::Callback callback;
    void* userData;
};

// No lock: a host's fork must never wait for a listener, which may itself
// wait for the host (an interpreter's lock, say). Deliver counts itself in
// before it reads the slot, and Set swaps the slot before it waits for the
// count to drop, so after Set no call can still use the old listener.
std::atomic<Installed*> installed{nullptr};
std::atomic<int> delivering{0};
thread_local bool insideListener = false;

} // namespace

void LogListener::Set(Callback callback, void* userData)
{
    if (insideListener)
        return;
    Installed* next = callback ? new Installed{callback, userData} : nullptr;
    Installed* previous = installed.exchange(next);
    while (delivering.load() != 0)
        std::this_thread::yield();
    delete previous;
}

void LogListener::Deliver(std::string_view lines)
{
    delivering.fetch_add(1);
    const Installed* current = installed.load();
    try {
        if (current) {
            insideListener = true;
            std::string line;
            std::size_t start = 0;
            while (start < lines.size()) {
                const std::size_t end = lines.find('\n', start);
                line.assign(lines.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start));
                current->callback(current->userData, line.c_str());
                start = end == std::string_view::npos ? lines.size() : end + 1;
            }
        }
    } catch (...) {
        if (IsThreadUnwinding()) {
            insideListener = false;
            delivering.fetch_sub(1);
            throw; // a cancelled thread must end
        }
        // A listener's failure is its own; the log goes on.
    }
    insideListener = false;
    delivering.fetch_sub(1);
}

void LogListener::AfterForkInChild() noexcept
{
    // Only the forking thread lives on, inside a listener call or not.
    delivering.store(insideListener ? 1 : 0);
}

} // namespace OrvaneInternal
