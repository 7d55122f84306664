// Process-wide objects made on first use and destroyed at the tear-down of the library.
#pragma once

#include <atomic>

#include <nx/foundation/CNxCleanUpBase.h>
#include <nx/foundation/CNxProcessWide.h>

// Holds the single T of the process. T offers its own `static T* Instance()` that returns
// CNxSingletonT<T>::Instance(), and makes this class a friend if its constructor is private.
// Singletons are destroyed in reverse order of their creation; one that is first used within the
// constructor of another is destroyed before it.
template <class T>
class CNxSingletonT : public CNxCleanUpBase {
public:
    // Any thread; T is constructed once. Never null. Not to be called after the tear-down: it would
    // return the destroyed object.
    static T* Instance() {
        static std::atomic<CNxSingletonT*> s_pInstance{nullptr};
        CNxSingletonT* instance = s_pInstance.load(std::memory_order_acquire);
        if (instance != nullptr) {
            return &instance->m_object;
        }
        CNxMutexGuardT<CNxMutexThreadRecursive> guard(CNxProcessWide::GetSingletonMutex());
        instance = s_pInstance.load(std::memory_order_relaxed);
        if (instance == nullptr) {
            instance = new CNxSingletonT;
            s_pInstance.store(instance, std::memory_order_release);
        }
        return &instance->m_object;
    }

private:
    CNxSingletonT() = default;

    T m_object;
};
