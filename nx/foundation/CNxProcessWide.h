// What a process has one of and every floor of the library may need: two mutexes, and the function
// that runs at exit(). Programs get the mutexes from CNxThreadManager.
#pragma once

#include <nx/foundation/CNxMutexThread.h>

// Any thread may call any operation, at any time: nothing of this is ever destroyed. A forked child
// finds both mutexes unlocked.
class CNxProcessWide {
public:
    // Held while a singleton is made or a clean-up object is registered or destroyed.
    static CNxMutexThreadRecursive& GetSingletonMutex();

    // For applications that keep counts of their own; the library's counts are atomic.
    static CNxMutexThread& GetReferenceControlMutex();

    // Has `tearDown` run at exit(), where the first call put it among the functions of atexit(3);
    // a later call only replaces it. The thread manager's tear-down ends the clean-up objects as
    // well, so it takes the place of theirs.
    static void SetTearDown(void (*tearDown)());

    // The same, unless there is a function already.
    static void SetTearDownIfNone(void (*tearDown)());

    // How many forks lie between this process and the one that loaded the library. Children of
    // fork(2) are counted, not those of a bare clone(2). What was noted in one process and is
    // another number now belongs to a parent.
    static unsigned int CountForks();
};
