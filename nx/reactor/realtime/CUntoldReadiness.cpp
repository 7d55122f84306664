#include <nx/net/CNxIPCBase.h>
#include <nx/reactor/CNxEventHandlerRepository.h>
#include <nx/reactor/realtime/CPollBand.h>
#include <nx/reactor/realtime/CUntoldReadiness.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <new>

namespace {

bool HasUnread(int fd) {
    int count = 0;
    return CNxIPCBase(fd).Control(FIONREAD, &count) == 0 && count > 0;
}

bool IsWritable(int fd) {
    return (CPollBand::Now(fd, POLLOUT) & POLLOUT) != 0;
}

bool IsLocalStream(int fd) {
    int domain = 0;
    int type = 0;
    socklen_t domainSize = sizeof(domain);
    socklen_t typeSize = sizeof(type);
    return getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &domainSize) == 0 && domain == AF_UNIX &&
           getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &typeSize) == 0 && type == SOCK_STREAM;
}

// A local stream socket tells of room only after a send that found none while the signals were on;
// one of before does not count. This one sends nothing: the kernel looks for room first, and then
// for the byte, which is nowhere. Not by send(), where checking builds look for the byte.
bool FindsRoom(int fd) {
    [[maybe_unused]] const long sent =
        syscall(SYS_sendto, fd, nullptr, 1, MSG_DONTWAIT | MSG_NOSIGNAL, nullptr, 0);
    assert(sent == -1);
    // Room that came before the kernel had noted the wish is not told either.
    return errno != EAGAIN || IsWritable(fd);
}

// Input that is there is a sign of a connection, not of room.
long ReadyOfConnecting(int fd) {
    return CPollBand::ToMaskOfConnecting(CPollBand::Now(fd, POLLIN | POLLOUT)) &
           (NX_MASK_OUTPUT | NX_MASK_CLOSE);
}

}  // namespace

// The connect of a local peer is over before the handler can be registered.
NxResult CUntoldReadiness::Check(int fd, long mask) {
    long ready = 0;
    if ((mask & NX_MASK_CONNECT) != 0) {
        ready = ReadyOfConnecting(fd);
    } else {
        const NxResult input = CheckPollIn_i(fd, mask, ready);
        if (input != NX_OK) {
            return input;
        }
        if ((mask & NX_MASK_WRITE) != 0 &&
            (IsWritable(fd) || (IsLocalStream(fd) && FindsRoom(fd)))) {
            ready |= NX_MASK_WRITE;
        }
    }
    Forget(fd);
    return ready != 0 ? Add(fd, ready) : NX_OK;
}

NxResult CUntoldReadiness::CheckPollIn_i(int fd, long mask, long& ready) {
    const long band = CPollBand::Now(fd, POLLIN);
    if (CPollBand::HasFailed(band)) {
        // What its peer wrote before is delivered before the close.
        ready = NX_MASK_CLOSE;
        return (mask & NX_MASK_INPUT) != 0 && HasUnread(fd) ? NX_OK : NX_ERROR_FAILURE;
    }
    if ((band & POLLIN) != 0) {
        ready = NX_MASK_INPUT;
    }
    return NX_OK;
}

NxResult CUntoldReadiness::Add(int fd, long mask) {
    try {
        m_dispatches.push_back({fd, mask});
    } catch (const std::bad_alloc&) {
        return NX_ERROR_FAILURE;
    }
    return NX_OK;
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
    for (int fd = 0; fd < registrations.GetMaxHandler() && !m_isPollAsked; ++fd) {
        if (!registrations.IsRegistered(fd)) {
            continue;
        }
        const long band = CPollBand::Now(fd, POLLIN | POLLOUT);
        const bool connects = (registrations.At(fd).m_mask & NX_MASK_CONNECT) != 0;
        const long mask = connects ? CPollBand::ToMaskOfConnecting(band) : CPollBand::ToMask(band);
        // Without memory for it now, it is asked for once more.
        m_isPollAsked = mask != 0 && Add(fd, mask) != NX_OK;
    }
}

CUntoldReadiness::CDispatch CUntoldReadiness::TakeFirst() {
    assert(!m_dispatches.empty());
    const CDispatch first = m_dispatches.front();
    m_dispatches.pop_front();
    return first;
}
