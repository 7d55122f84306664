#include <fcntl.h>
#include <sys/ioctl.h>

#include <cerrno>

#include <nx/net/CNxIPCBase.h>

namespace {

int SwitchNonBlocking(int handle, int option, bool on) {
    if (option != CNxIPCBase::NON_BLOCK) {
        errno = EINVAL;
        return -1;
    }
    const int flags = fcntl(handle, F_GETFL);
    if (flags == -1) {
        return -1;
    }
    const int wanted = on ? flags | O_NONBLOCK : flags & ~O_NONBLOCK;
    return wanted == flags ? 0 : fcntl(handle, F_SETFL, wanted);
}

}  // namespace

int CNxIPCBase::Enable(int option) const {
    return SwitchNonBlocking(m_handle, option, true);
}

int CNxIPCBase::Disable(int option) const {
    return SwitchNonBlocking(m_handle, option, false);
}

int CNxIPCBase::Control(int command, void* argument) const {
    return ioctl(m_handle, static_cast<unsigned long>(command), argument);
}
