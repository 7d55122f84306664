// The intrusive reference count of shared objects (data blocks, DNS records).
#pragma once

#include <nx/foundation/CNxMutexThread.h>
#include <nx/thread/CNxThreadManager.h>

// Base of an object that is shared by counting references; CNxAutoPtr holds one. The count starts
// at 0: whoever makes the object takes the first reference.
//
// One process-wide mutex, handed out by the thread manager, guards the counts of all objects, so
// references may be taken and released on any thread. It outlives every object, static ones
// included. Nothing is called while it is held.
//
// Instantiated as CNxReferenceControlT<CNxMutexThread>.
template <class Mutex>
class CNxReferenceControlT {
public:
    CNxReferenceControlT(const CNxReferenceControlT&) = delete;
    CNxReferenceControlT& operator=(const CNxReferenceControlT&) = delete;

    // Returns the new count.
    long AddReference() {
        CNxMutexGuardT<Mutex> guard(*m_mutex);
        return ++m_references;
    }

    // Returns the new count. The call that brings it to 0 runs OnReferenceDestory() and answers 0;
    // the object must not be touched afterwards.
    long ReleaseReference() {
        const long references = Decrement();
        if (references != 0) {
            return references;
        }
        OnReferenceDestory();
        return 0;
    }

protected:
    CNxReferenceControlT() { CNxThreadManager::Instance()->GetReferenceControlMutex(m_mutex); }

public:
    virtual ~CNxReferenceControlT() = default;

protected:
    // Called exactly once, without the mutex, when the last reference is gone. Overridden by
    // objects that go back to where they came from instead of being deleted.
    virtual void OnReferenceDestory() { delete this; }

private:
    long Decrement() {
        CNxMutexGuardT<Mutex> guard(*m_mutex);
        return --m_references;
    }

    Mutex* m_mutex = nullptr;
    long m_references = 0;
};
