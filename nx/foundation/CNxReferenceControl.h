// The intrusive reference count of shared objects (data blocks, DNS records).
#pragma once

#include <atomic>
#include <cassert>

class CNxMutexThread;

// Base of an object that is shared by counting references; CNxAutoPtr holds one. The count starts
// at 0: whoever makes the object takes the first reference.
//
// Any thread may take and release references; nothing is locked. What a thread did with the object
// before its release has happened for the thread that destroys it.
//
// Instantiated as CNxReferenceControlT<CNxMutexThread>: the mutex names the kind of threads that
// share the object, and is not used.
template <class Mutex>
class CNxReferenceControlT {
public:
    CNxReferenceControlT(const CNxReferenceControlT&) = delete;
    CNxReferenceControlT& operator=(const CNxReferenceControlT&) = delete;

    // Returns the new count.
    long AddReference() { return m_references.fetch_add(1, std::memory_order_relaxed) + 1; }

    // Returns the new count. The call that brings it to 0 runs OnReferenceDestory() and returns 0;
    // the object must not be touched afterwards.
    long ReleaseReference() {
        const long references = m_references.fetch_sub(1, std::memory_order_acq_rel) - 1;
        assert(references >= 0);
        if (references != 0) {
            return references;
        }
        OnReferenceDestory();
        return 0;
    }

protected:
    CNxReferenceControlT() = default;

public:
    virtual ~CNxReferenceControlT() = default;

protected:
    // Called exactly once, when the last reference is gone. Overridden by objects that go back to
    // where they came from instead of being deleted.
    virtual void OnReferenceDestory() { delete this; }

private:
    std::atomic<long> m_references{0};
};
