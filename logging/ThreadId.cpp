#include "logging/ThreadId.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>

namespace OrvaneInternal {

namespace {

// Bumped in the child after fork, so that a thread's cached id is refreshed
// there: the forking thread carries on in the child under a new id.
std::atomic<unsigned> forkGeneration{0};
const int atforkRegistered = ::pthread_atfork(nullptr, nullptr, [] { ++forkGeneration; });

} // namespace

unsigned long CurrentThreadId()
{
    thread_local unsigned generation = ~0u;
    thread_local unsigned long id = 0;
    const unsigned current = forkGeneration.load(std::memory_order_relaxed);
    if (generation != current) {
        id = static_cast<unsigned long>(::gettid());
        generation = current;
    }
    return id;
}

} // namespace OrvaneInternal
