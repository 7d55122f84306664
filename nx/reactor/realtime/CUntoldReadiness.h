// Inside the library only: the readiness that no signal will tell. A signal tells a change, so what
// is the case when a descriptor is registered has to be asked for, and so has everything after an
// overflow.
#pragma once

#include <cstddef>
#include <deque>

#include <nx/foundation/NxResult.h>

class CNxEventHandlerRepository;

// Dispatches that the real-time-signal reactor has still to make, first in, first out. Belongs to
// its thread.
class CUntoldReadiness {
public:
    struct CDispatch {
        int m_fd;
        long m_mask;
    };

    // Adds what a descriptor that is being registered with `mask` is ready for already, in the
    // place of what is there of it; with NX_MASK_CONNECT only the outcome of a connect is. NX_OK;
    // NX_ERROR_FAILURE, with all as it was, when it has failed or its peer has hung up, unless it
    // connects or there is something left to read that `mask` wants, and when there is no memory.
    [[nodiscard]] NxResult Check(int fd, long mask);

    // Drops what is there of the descriptor.
    void Forget(int fd);
    void ForgetAll();

    // Has PollIfAsked ask every registered descriptor.
    void AskForPoll() { m_isPollAsked = true; }
    void PollIfAsked(const CNxEventHandlerRepository& registrations);

    bool IsEmpty() const { return m_dispatches.empty() && !m_isPollAsked; }
    size_t GetCount() const { return m_dispatches.size(); }
    CDispatch TakeFirst();

private:
    [[nodiscard]] NxResult Add(int fd, long mask);
    [[nodiscard]] static NxResult CheckPollIn_i(int fd, long mask, long& ready);

    std::deque<CDispatch> m_dispatches;
    bool m_isPollAsked = false;
};
