#include <nx/reactor/INxEventHandler.h>
#include <nx/reactor/realtime/CPollBand.h>
#include <poll.h>

namespace {

constexpr long c_failed = POLLERR | POLLHUP | POLLNVAL;

}  // namespace

long CPollBand::Now(int fd, short wanted) {
    pollfd entry{fd, wanted, 0};
    return poll(&entry, 1, 0) >= 0 ? entry.revents : POLLNVAL;
}

bool CPollBand::HasFailed(long band) {
    return (band & c_failed) != 0;
}

long CPollBand::ToMask(long band) {
    if (HasFailed(band)) {
        return NX_MASK_CLOSE;
    }
    long mask = 0;
    if ((band & POLLIN) != 0) {
        mask |= NX_MASK_INPUT | NX_MASK_CONNECT;
    }
    if ((band & POLLOUT) != 0) {
        mask |= NX_MASK_OUTPUT;
    }
    return mask;
}

long CPollBand::ToMaskOfConnecting(long band) {
    return (band & (c_failed | POLLIN)) == POLLHUP ? 0 : ToMask(band);
}
