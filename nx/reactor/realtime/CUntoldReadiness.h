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

    // Adds what a descriptor that is being registered with `mask` is ready for already; with
    // NX_MASK_CONNECT only the outcome of a connect is.
    // NX_OK; NX_ERROR_FAILURE when it has failed or its peer has hung up, unless it connects.
    [[nodiscard]] NxResult Check(int fd, long mask);

    void Add(int fd, long mask) { m_dispatches.push_back({fd, mask}); }

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
    [[nodiscard]] NxResult CheckPollIn_i(int fd);
    void CheckPollOut(int fd);
    void CheckConnect(int fd);

    std::deque<CDispatch> m_dispatches;
    bool m_isPollAsked = false;
};
