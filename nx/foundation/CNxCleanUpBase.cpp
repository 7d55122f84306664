#include <nx/foundation/CNxCleanUpBase.h>
#include <nx/foundation/CNxProcessWide.h>

#include <cassert>

CNxCleanUpBase* CNxCleanUpBase::s_pHeader = nullptr;
CNxCleanUpBase* CNxCleanUpBase::s_pOfParent = nullptr;
unsigned int CNxCleanUpBase::s_forks = 0;

// What a parent registered is not the child's to end. With the mutex held.
void CNxCleanUpBase::ForgetThoseOfParent() {
    if (s_forks != CNxProcessWide::CountForks()) {
        s_forks = CNxProcessWide::CountForks();
        s_pOfParent = s_pHeader;
        s_pHeader = nullptr;
    }
}

CNxCleanUpBase::CNxCleanUpBase() {
    CNxMutexGuardT<CNxMutexThreadRecursive> guard(CNxProcessWide::GetSingletonMutex());
    CNxProcessWide::SetTearDownIfNone(&CNxCleanUpBase::CleanupAll);
    ForgetThoseOfParent();
    m_next = s_pHeader;
    s_pHeader = this;
}

// In the end it is the first one or not listed any more, unless its construction has failed.
CNxCleanUpBase::~CNxCleanUpBase() {
    CNxMutexGuardT<CNxMutexThreadRecursive> guard(CNxProcessWide::GetSingletonMutex());
    CNxCleanUpBase** at = &s_pHeader;
    while (*at != nullptr && *at != this) {
        at = &(*at)->m_next;
    }
    if (*at != nullptr) {
        *at = m_next;
    }
}

void CNxCleanUpBase::CleanupAll() {
    CNxMutexGuardT<CNxMutexThreadRecursive> guard(CNxProcessWide::GetSingletonMutex());
    ForgetThoseOfParent();
    CNxCleanUpBase* object = s_pHeader;
    while (object != nullptr) {
        CNxCleanUpBase* const next = object->m_next;
        assert(next != object);
        object->CleanUp();
        s_pHeader = next;
        object = next;
    }
}
