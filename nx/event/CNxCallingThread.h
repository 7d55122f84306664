// Inside the library only: what low floors need to know of the thread that calls them, which the
// thread manager, above them, knows.
#pragma once

class INxEventQueue;

class CNxCallingThread {
public:
    using Finder = INxEventQueue* (*)();

    // The event queue of the calling thread; null when the thread is not registered, or there is
    // no thread manager. Any thread.
    static INxEventQueue* GetEventQueue();

    // For the thread manager: how to find it.
    static void SetFinder(Finder finder);
};
