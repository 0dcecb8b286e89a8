// Smart pointer for RefCntObject-derived types: takes a reference on
// acquisition, drops it on release. Dereferencing a null pointer raises a
// QRX_LogicError rather than crashing.
#pragma once

#include "sys/Errors.h"
#include "sys/RefCntObject.h"

#include <utility>

template <class T, class Base = RefCntObject> class RefCntPtr {
  public:
    RefCntPtr() = default;
    RefCntPtr(T* p) : m_ptr(p) { Acquire(); } // NOLINT: implicit on purpose, like a raw pointer
    RefCntPtr(const RefCntPtr& other) : m_ptr(other.m_ptr) { Acquire(); }
    RefCntPtr(RefCntPtr&& other) noexcept : m_ptr(std::exchange(other.m_ptr, nullptr)) {}
    template <class U> RefCntPtr(const RefCntPtr<U, Base>& other) : m_ptr(other.get()) { Acquire(); }
    ~RefCntPtr() { Release(); }

    RefCntPtr& operator=(const RefCntPtr& other)
    {
        RefCntPtr(other).swap(*this); // takes the new reference before dropping the old
        return *this;
    }
    RefCntPtr& operator=(RefCntPtr&& other) noexcept
    {
        RefCntPtr(std::move(other)).swap(*this);
        return *this;
    }

    T* get() const { return m_ptr; }
    T& operator*() const { return *Checked(); }
    T* operator->() const { return Checked(); }
    explicit operator bool() const { return m_ptr != nullptr; }
    void reset() { RefCntPtr().swap(*this); }
    void swap(RefCntPtr& other) noexcept { std::swap(m_ptr, other.m_ptr); }

  private:
    void Acquire() const
    {
        if (m_ptr)
            static_cast<const Base*>(m_ptr)->AddReference();
    }
    void Release()
    {
        if (m_ptr)
            static_cast<const Base*>(m_ptr)->RemoveReference();
    }
    T* Checked() const
    {
        if (!m_ptr)
            ThrowLogicError(QRX_Status::NullReference, "RefCntPtr: dereference of a null pointer");
        return m_ptr;
    }

    T* m_ptr = nullptr;
};
