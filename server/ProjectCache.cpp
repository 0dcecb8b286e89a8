#include "server/ProjectCache.h"

namespace OrvaneInternal {

void ProjectCache::SetLifetime(long seconds)
{
    m_lifetime = std::chrono::seconds(seconds > 0 ? seconds : 0);
    if (!Enabled())
        Clear();
}

std::optional<std::wstring> ProjectCache::Find(const std::wstring& name)
{
    const auto found = m_entries.find(name);
    if (found == m_entries.end())
        return std::nullopt;
    if (Clock::now() >= found->second.expires) {
        m_entries.erase(found);
        return std::nullopt;
    }
    return found->second.id;
}

void ProjectCache::Remember(const std::wstring& name, const std::wstring& id)
{
    if (Enabled())
        m_entries[name] = Entry{id, Clock::now() + m_lifetime};
}

} // namespace OrvaneInternal
