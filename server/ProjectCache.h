// Project ids a session has looked up, each remembered for a while, so that a
// publish to a known project skips the page walk. Off (0 seconds) by default.
// Not locked: one thread uses a session at a time.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <unordered_map>

namespace OrvaneInternal {

class ProjectCache {
  public:
    using Clock = std::chrono::steady_clock;

    // How long an id is kept; 0 turns the cache off and forgets everything.
    void SetLifetime(long seconds);
    bool Enabled() const { return m_lifetime.count() > 0; }
    // The id remembered for `name`, unless it has expired.
    std::optional<std::wstring> Find(const std::wstring& name);
    void Remember(const std::wstring& name, const std::wstring& id);
    void Forget(const std::wstring& name) { m_entries.erase(name); }
    void Clear() { m_entries.clear(); }

  private:
    struct Entry {
        std::wstring id;
        Clock::time_point expires;
    };
    std::chrono::seconds m_lifetime{0};
    std::unordered_map<std::wstring, Entry> m_entries;
};

} // namespace OrvaneInternal
