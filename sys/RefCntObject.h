// Intrusive reference count for objects shared through RefCntPtr. The object
// deletes itself when the last reference goes; never delete one directly.
#pragma once

#include <atomic>
#include <cstddef>
#include <new>

class RefCntObject {
  public:
    RefCntObject() = default;
    RefCntObject(const RefCntObject&) = delete;
    RefCntObject& operator=(const RefCntObject&) = delete;

    void AddReference() const { m_references.fetch_add(1, std::memory_order_relaxed); }
    void RemoveReference() const
    {
        if (m_references.fetch_sub(1, std::memory_order_acq_rel) == 1)
            delete this;
    }
    long ReferenceCount() const { return m_references.load(std::memory_order_acquire); }

    static void* operator new(std::size_t size) { return ::operator new(size); }
    static void operator delete(void* p) noexcept { ::operator delete(p); }

  protected:
    virtual ~RefCntObject() = default;

  private:
    mutable std::atomic<long> m_references{0};
};
