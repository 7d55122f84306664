// Inside the library only: for writes to sockets and pipes by calls that have no flag against
// SIGPIPE.
#pragma once

#include <pthread.h>

#include <csignal>

// From here to the end of the scope the calling thread gets no SIGPIPE.
class CNoSigPipe {
public:
    CNoSigPipe() {
        sigemptyset(&m_pipe);
        sigaddset(&m_pipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &m_pipe, &m_previous);
        m_wasPending = IsPending();
    }
    ~CNoSigPipe() {
        // Writing raises it for this thread; one that was there before is another's.
        const timespec now{};
        if (!m_wasPending && IsPending()) {
            sigtimedwait(&m_pipe, nullptr, &now);
        }
        pthread_sigmask(SIG_SETMASK, &m_previous, nullptr);
    }
    CNoSigPipe(const CNoSigPipe&) = delete;
    CNoSigPipe& operator=(const CNoSigPipe&) = delete;

private:
    static bool IsPending() {
        sigset_t pending;
        return sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
    }
    sigset_t m_pipe{};
    sigset_t m_previous{};
    bool m_wasPending;
};
