// A mutex for objects that a forked child goes on to use, or has to end.
#pragma once

#include <nx/foundation/CNxMutexThread.h>

// A fork(2) waits until it is free, and parent and child find it unlocked: without that the child
// of a process with threads finds some mutexes locked for ever, and what they guard half changed.
//
// For short sections that take no other mutex. A fork waits 100 ms in all for those that are not
// free, then goes on, so one that is held by the forking thread itself, or for long, is no
// deadlock: the child finds it locked.
class CNxMutexOverFork : public CNxMutexThread {
public:
    CNxMutexOverFork();
    ~CNxMutexOverFork();

    // For fork(2): all of the process.
    static void LockAll();
    static void UnLockAll();

private:
    CNxMutexOverFork* m_next;
    CNxMutexOverFork** m_self;  // what points to this one
    bool m_isHeld = false;      // by a fork
};
