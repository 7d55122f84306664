#include <nx/foundation/CKeptErrno.h>
#include <nx/foundation/high_descriptor.h>
#include <nx/reactor/CNxPipe.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

namespace {

constexpr unsigned long c_maxSize = 65535;

bool CloseHandle(int& handle) {
    const bool closed = handle == -1 || close(handle) == 0;
    handle = -1;
    return closed;
}

}  // namespace

NxResult CNxPipe::Open(unsigned long size) {
    int handles[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, handles) != 0) {
        return NX_ERROR_NOT_AVAILABLE;
    }
    m_readHandle = ToHighDescriptor(handles[0]);
    m_writeHandle = ToHighDescriptor(handles[1]);
    size = std::min(size, c_maxSize);
    if (m_readHandle == -1 || m_writeHandle == -1 ||
        setsockopt(m_readHandle, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size)) != 0 ||
        setsockopt(m_writeHandle, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size)) != 0) {
        const CKeptErrno keptErrno;
        Close();
        return NX_ERROR_NOT_AVAILABLE;
    }
    return NX_OK;
}

NxResult CNxPipe::Close() {
    const bool readClosed = CloseHandle(m_readHandle);
    const bool writeClosed = CloseHandle(m_writeHandle);
    return readClosed && writeClosed ? NX_OK : NX_ERROR_FAILURE;
}
