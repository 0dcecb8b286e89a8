// Intrusive reference count for objects shared through RefCntPtr. The object
// deletes itself when the last reference goes; never delete one directly.
#pragma once

#include <boost/smart_ptr/intrusive_ref_counter.hpp>

class RefCntObject : public boost::intrusive_ref_counter<RefCntObject, boost::thread_safe_counter> {
  public:
    RefCntObject() = default;
    RefCntObject(const RefCntObject&) = delete;
    RefCntObject& operator=(const RefCntObject&) = delete;
    // Public only because the counter's release deletes through this base.
    virtual ~RefCntObject() = default;
};
