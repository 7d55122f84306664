// Inside the library only: what a higher floor keeps with a reactor.
#pragma once

#include <nx/foundation/CNxReferenceControl.h>

// Made by the first who needs one, held by the reactor until that is destroyed, and by whoever else
// has a reference to it.
class CReactorCompanion : public CNxReferenceControlT<CNxMutexThread> {
public:
    // The reactor is closed or destroyed, by the thread that has it then. Handlers and timers may
    // still be removed; nothing can be registered any more. A reactor that is opened again keeps
    // its companion.
    virtual void OnReactorClosing() = 0;
};
