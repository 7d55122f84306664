// Inside the library only: what every trace record begins with - local time, process and thread.
#pragma once

#include <cstddef>
#include <ctime>

// "[MM/DD/YYYY hh:mm:ss.mmm pid=P tid=T] " of the thread that asked for it last.
struct CTraceStamp {
    char m_text[96];
    size_t m_length;
    size_t m_msOffset;
    int m_day;
    // 1..12
    int m_month;
    int m_year;
    time_t m_second;
    unsigned int m_forks;
    bool m_isKernelId;
};

// The calling thread's stamp, brought up to now; it changes at the thread's next call. The calendar
// and the ids are worked out once a second and thread, and in a child of fork(2).
const CTraceStamp& CurrentTraceStamp();

// Whether T is the number that the kernel knows the thread by, and ps(1) and gdb(1) show, instead
// of pthread_self(3) cut to an int. Of all stamps from the next ones on.
void SetKernelThreadIds(bool on);
