#include <nx/foundation/CNxCleanUpBase.h>
#include <nx/foundation/CNxMutexThread.h>
#include <nx/thread/CNxThreadManager.h>

CNxCleanUpBase* CNxCleanUpBase::s_pHeader = nullptr;

namespace {

CNxMutexThreadRecursive& GetSingletonMutex() {
    CNxMutexThreadRecursive* mutex = nullptr;
    CNxThreadManager::Instance()->GetSingletonMutex(mutex);
    return *mutex;
}

}  // namespace

CNxCleanUpBase::CNxCleanUpBase() {
    CNxMutexGuardT<CNxMutexThreadRecursive> guard(GetSingletonMutex());
    m_next = s_pHeader;
    s_pHeader = this;
}

void CNxCleanUpBase::CleanupAll() {
    CNxMutexGuardT<CNxMutexThreadRecursive> guard(GetSingletonMutex());
    CNxCleanUpBase* object = s_pHeader;
    while (object != nullptr) {
        CNxCleanUpBase* const next = object->m_next;
        object->CleanUp();
        s_pHeader = next;
        object = next;
    }
}
