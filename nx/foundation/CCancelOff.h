// Inside the library only: keeps a thread from being cancelled while others rely on it.
#pragma once

#include <pthread.h>

// From here to the end of the scope the calling thread is not cancelled; a request that comes
// meanwhile is served at the first cancellation point after it. Waits, sockets, file and console
// output are cancellation points, and a thread that ended in one would keep the locks it holds, or
// take its stack away from a thread that still uses something on it.
class CCancelOff {
public:
    CCancelOff() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_previous); }
    ~CCancelOff() { pthread_setcancelstate(m_previous, nullptr); }

    CCancelOff(const CCancelOff&) = delete;
    CCancelOff& operator=(const CCancelOff&) = delete;

private:
    int m_previous = PTHREAD_CANCEL_ENABLE;
};
