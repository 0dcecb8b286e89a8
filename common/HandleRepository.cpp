#include "common/HandleRepository.h"

#include <utility>

HandleRepository::scoped_read_lock::scoped_read_lock(tbb::spin_rw_mutex& mutex) : m_lock(mutex, /*write=*/false) {}

HandleRepository::scoped_read_lock::~scoped_read_lock() = default;

bool HandleRepository::handleExists(void* handle)
{
    if (handle == nullptr)
        return false;
    scoped_read_lock lock(m_lock);
    return m_handles.find(handle) != m_handles.end();
}

bool HandleRepository::removeHandle(void* handle)
{
    boost::any value;
    {
        tbb::spin_rw_mutex::scoped_lock lock(m_lock, /*write=*/true);
        auto it = m_handles.find(handle);
        if (it == m_handles.end())
            return false;
        value = std::move(it->second);
        m_handles.unsafe_erase(it);
    }
    // `value` is destroyed here, outside the lock: destroying a session may
    // log and take time, and must not block other threads' lookups.
    return true;
}

HandleRepository& OrvGetHandleRepository()
{
    static HandleRepository repository;
    return repository;
}
