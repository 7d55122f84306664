// Being told of something that a library object noticed.
#pragma once

// Implemented by users. Not owned by the object that calls it; must outlive that object.
class INxObserver {
public:
    // Called on the thread of the caller, with no lock of the library held.
    // `topic` "TimerQueue": the first timer came into an empty timer queue; `data` is null.
    // `topic` "ThreadEnd": a thread's loop has ended by itself (CNxThreadManager); `data` is the
    // CNxThread.
    // `topic` "DnsManager": a look-up has ended; `data` is its record.
    virtual void OnObserve(const char* topic, void* data) = 0;
    virtual ~INxObserver() = default;
};
