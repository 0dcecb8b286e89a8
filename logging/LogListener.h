// The host's log listener: a function that gets every line the log writes,
// as the file gets it (without the line end), on the writer's thread.
#pragma once

#include <string_view>

namespace OrvaneInternal {

class LogListener {
  public:
    using Callback = void (*)(void* userData, const char* line);

    // Installs `callback` (null removes it) for every line written from now
    // on. Once it returns, the previous listener is not running and is never
    // called again, so its host may free it; hence it must not be called from
    // inside a listener call (it would wait for itself), where it does nothing.
    static void Set(Callback callback, void* userData);
    // Hands every "\n"-ended line of `lines` to the listener, if any. What the
    // listener throws is dropped, so that the writer goes on; only the
    // unwinding of a cancelled thread passes.
    static void Deliver(std::string_view lines);
    // In a forked child: no listener call runs there but the forking
    // thread's own, whatever the parent's writer was doing.
    static void AfterForkInChild() noexcept;
};

} // namespace OrvaneInternal
