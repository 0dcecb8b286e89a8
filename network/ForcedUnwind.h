// A thread ended by pthread_cancel or pthread_exit unwinds its stack with an
// exception that is no C++ exception; a handler that catches everything and
// does not rethrow it makes the process abort.
#pragma once

#include <exception>

namespace OrvaneInternal {

// First thing in a catch-all handler: rethrows a thread's forced unwind (the
// one exception std::current_exception cannot hold), and returns otherwise.
inline void RethrowForcedUnwind()
{
    if (!std::current_exception())
        throw;
}

} // namespace OrvaneInternal
