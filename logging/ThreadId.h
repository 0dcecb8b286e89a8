// The OS thread id (gettid) rather than std::thread::id, so that a log line
// can be matched with the threads that top -H and ps -L show.
#pragma once

namespace OrvaneInternal {

// Cached per thread: gettid is a system call and this is on every caller's
// path. A child after fork sees its own id.
unsigned long CurrentThreadId();

} // namespace OrvaneInternal
