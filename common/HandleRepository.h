// The process-wide registry of opaque handles handed to callers. A handle is
// an object's address; the map's value owns the object (typically a
// boost::any holding a std::shared_ptr), so removing a handle destroys it.
//
// Locking: registration and lookup run concurrently under the reader side of
// m_lock (the map admits concurrent insertion and lookup); removal takes the
// writer side, because erasing from the map is not concurrency-safe.
#pragma once

#include <boost/any.hpp>
#include <tbb/concurrent_unordered_map.h>
#include <tbb/spin_rw_mutex.h>

#include <functional>
#include <memory>

#define ORV_COMMON_CLASS __attribute__((visibility("default")))

class ORV_COMMON_CLASS HandleRepository {
  public:
    using Map = tbb::concurrent_unordered_map<void*, boost::any, std::hash<void*>>;

    class ORV_COMMON_CLASS scoped_read_lock {
      public:
        explicit scoped_read_lock(tbb::spin_rw_mutex& mutex);
        ~scoped_read_lock();
        scoped_read_lock(const scoped_read_lock&) = delete;
        scoped_read_lock& operator=(const scoped_read_lock&) = delete;

      private:
        tbb::spin_rw_mutex::scoped_lock m_lock;
    };

    // True if `handle` is registered; a null handle is simply not registered.
    bool handleExists(void* handle);
    // A share in the object registered as `handle` by registerHandle<T>, so
    // that removing the handle meanwhile does not destroy it; null when not
    // registered.
    template <class T> std::shared_ptr<T> findHandle(void* handle);
    // Erases `handle` and destroys its value (outside the lock); true if it was there.
    bool removeHandle(void* handle);

    // Adopts `object` into a std::shared_ptr<T> owned by the registry. False,
    // and the object not adopted, when its address is registered already. On
    // an exception (out of memory) the object has been deleted; if that came
    // after the insertion, the entry keeps a placeholder.
    template <class T> bool registerHandle(T* object);

    Map m_handles;
    tbb::spin_rw_mutex m_lock;
};

ORV_COMMON_CLASS HandleRepository& OrvGetHandleRepository();

template <class T> bool HandleRepository::registerHandle(T* object)
{
    scoped_read_lock lock(m_lock);
    std::pair<Map::iterator, bool> inserted;
    try {
        inserted = m_handles.insert(Map::value_type(static_cast<void*>(object), boost::any(0)));
    } catch (...) {
        delete object; // on any exception the object is gone, never left to the caller
        throw;
    }
    if (!inserted.second)
        return false;
    // On allocation failure shared_ptr deletes the object itself and rethrows.
    std::shared_ptr<T> owner(object);
    inserted.first->second = boost::any(std::move(owner));
    return true;
}

template <class T> std::shared_ptr<T> HandleRepository::findHandle(void* handle)
{
    if (handle == nullptr)
        return nullptr;
    scoped_read_lock lock(m_lock);
    const auto found = m_handles.find(handle);
    if (found == m_handles.end())
        return nullptr;
    const auto* owner = boost::any_cast<std::shared_ptr<T>>(&found->second);
    return owner != nullptr ? *owner : nullptr;
}
