// Inside the library only: the two signals of the real-time-signal reactor, as the process has
// them. SIGRTMIN tells a change of readiness or what another thread asks for, SIGIO that one of
// them found no room in the queue.
#pragma once

#include <sys/types.h>

#include <csignal>

#include <nx/foundation/CNxTimeValue.h>
#include <nx/foundation/NxResult.h>

// Any thread may call any of it.
class CReactorSignals {
public:
    // SIGRTMIN.
    static int GetNumber();

    // Blocks both for the calling thread. NX_OK, or NX_ERROR_UNEXPECTED when that fails.
    [[nodiscard]] static NxResult Block();

    // The default action of both ends the process when a thread gets one that has not blocked it.
    // Puts a signal handler in its place: what the signal said is lost, so it sends the taker a
    // SIGIO. Another action than the default one stays.
    static void ReplaceDefaultActions();

    // The thread that takes them, by its system id (gettid(2)); 0 for none.
    static void SetTaker(pid_t thread);

    // Asks the system for `wanted` queued signals. The number that it now allows; -1 when it has no
    // such setting: it is gone from current kernels, and RLIMIT_SIGPENDING took its place.
    static int SetProcRtsigMax_i(int wanted);

    // Takes the next one, waiting for at most `timeout`. Its number; -1 with errno EAGAIN when none
    // came, EINTR when another signal did (sigtimedwait(2)).
    static int Take(siginfo_t& info, const CNxTimeValue& timeout);

    // Takes all that wait.
    static void TakeAll();
};
