#include <nx/reactor/CNxEventHandlerRepository.h>
#include <nx/reactor/realtime/CPollBand.h>
#include <nx/reactor/realtime/CUntoldReadiness.h>
#include <poll.h>

#include <algorithm>
#include <cassert>
#include <vector>

NxResult CUntoldReadiness::Check(int fd, long mask) {
    if ((mask & NX_MASK_CONNECT) != 0) {
        CheckConnect(fd);
        return NX_OK;
    }
    const NxResult input = CheckPollIn_i(fd);
    if (input == NX_OK && (mask & NX_MASK_WRITE) != 0) {
        CheckPollOut(fd);
    }
    return input;
}

NxResult CUntoldReadiness::CheckPollIn_i(int fd) {
    const long band = CPollBand::Now(fd, POLLIN);
    if (CPollBand::HasFailed(band)) {
        return NX_ERROR_FAILURE;
    }
    if ((band & POLLIN) != 0) {
        Add(fd, NX_MASK_INPUT);
    }
    return NX_OK;
}

void CUntoldReadiness::CheckPollOut(int fd) {
    if ((CPollBand::Now(fd, POLLOUT) & POLLOUT) != 0) {
        Add(fd, NX_MASK_WRITE);
    }
}

// The connect of a local peer is over before the handler can be registered. Input that is there is
// a sign of a connection, not of room.
void CUntoldReadiness::CheckConnect(int fd) {
    const long mask = CPollBand::ToMaskOfConnecting(CPollBand::Now(fd, POLLIN | POLLOUT)) &
                      (NX_MASK_OUTPUT | NX_MASK_CLOSE);
    if (mask != 0) {
        Add(fd, mask);
    }
}

void CUntoldReadiness::Forget(int fd) {
    const auto isSame = [fd](const CDispatch& dispatch) { return dispatch.m_fd == fd; };
    m_dispatches.erase(std::remove_if(m_dispatches.begin(), m_dispatches.end(), isSame),
                       m_dispatches.end());
}

void CUntoldReadiness::ForgetAll() {
    m_dispatches.clear();
    m_isPollAsked = false;
}

void CUntoldReadiness::PollIfAsked(const CNxEventHandlerRepository& registrations) {
    if (!m_isPollAsked) {
        return;
    }
    m_isPollAsked = false;
    std::vector<pollfd> entries;
    for (int fd = 0; fd < registrations.GetMaxHandler(); ++fd) {
        if (registrations.IsRegistered(fd)) {
            entries.push_back({fd, POLLIN | POLLOUT, 0});
        }
    }
    if (poll(entries.data(), entries.size(), 0) <= 0) {
        return;
    }
    for (const pollfd& entry : entries) {
        const bool connects = (registrations.At(entry.fd).m_mask & NX_MASK_CONNECT) != 0;
        const long mask = connects ? CPollBand::ToMaskOfConnecting(entry.revents)
                                   : CPollBand::ToMask(entry.revents);
        // What a peer sent before it hung up is read first.
        if (mask == NX_MASK_CLOSE && (entry.revents & POLLIN) != 0) {
            Add(entry.fd, NX_MASK_INPUT);
        }
        if (mask != 0) {
            Add(entry.fd, mask);
        }
    }
}

CUntoldReadiness::CDispatch CUntoldReadiness::TakeFirst() {
    assert(!m_dispatches.empty());
    const CDispatch first = m_dispatches.front();
    m_dispatches.pop_front();
    return first;
}
