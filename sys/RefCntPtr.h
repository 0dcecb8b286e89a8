// Smart pointer for RefCntObject-derived types: boost::intrusive_ptr, save that
// dereferencing a null pointer raises a QRX_LogicError rather than crashing.
#pragma once

#include "sys/Errors.h"
#include "sys/RefCntObject.h"

#include <boost/intrusive_ptr.hpp>

template <class T, class Base = RefCntObject> class RefCntPtr : public boost::intrusive_ptr<T> {
  public:
    RefCntPtr() = default;
    RefCntPtr(T* p) : boost::intrusive_ptr<T>(p) {} // NOLINT: implicit on purpose, like a raw pointer
    template <class U> RefCntPtr(const RefCntPtr<U, Base>& other) : boost::intrusive_ptr<T>(other) {}

    T& operator*() const { return *Checked(); }
    T* operator->() const { return Checked(); }

  private:
    T* Checked() const
    {
        if (!this->get())
            ThrowLogicError(QRX_Status::NullReference, "RefCntPtr: dereference of a null pointer");
        return this->get();
    }
};
