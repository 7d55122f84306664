// The text forms that may be given a host name. They stand apart, because they bring the resolver
// into the programs that use them.
#include <nx/foundation/has_zero_byte.h>
#include <nx/net/CNxInetAddr.h>

#include <cstdlib>
#include <cstring>

namespace {

constexpr size_t c_hostBufferSize = 512;

}  // namespace

CNxInetAddr::CNxInetAddr(const char* host, unsigned short port) : CNxInetAddr() {
    static_cast<void>(Set(host, port));  // IsResolved() tells
}

CNxInetAddr::CNxInetAddr(const CNxString& host, unsigned short port) : CNxInetAddr() {
    static_cast<void>(Set(host, port));  // IsResolved() tells
}

CNxInetAddr::CNxInetAddr(const char* hostPort) : CNxInetAddr() {
    static_cast<void>(Set(hostPort));  // IsResolved() tells
}

NxResult CNxInetAddr::Set(const char* host, unsigned short port) {
    if (host == nullptr) {
        return NX_ERROR_FAILURE;
    }
    if (SetNumeric(host, port) == NX_OK) {
        return NX_OK;
    }
    m_hostName.assign(host);
    std::memset(&m_address, 0, sizeof m_address);
    // Kept for the resolved address also when the type takes none.
    static_cast<void>(SetPort(port));
    return TryResolve();
}

NxResult CNxInetAddr::Set(const CNxString& host, unsigned short port) {
    if (host.empty() || HasZeroByte(host)) {
        return NX_ERROR_FAILURE;
    }
    return Set(host.c_str(), port);
}

NxResult CNxInetAddr::Set(const char* hostPort) {
    if (hostPort == nullptr) {
        return NX_ERROR_INVALID_ARG;
    }
    if (*hostPort == '[') {
        return SetNumeric(hostPort);
    }
    char host[c_hostBufferSize];
    const size_t length = std::strcspn(hostPort, ":");
    if (length >= sizeof host) {
        return NX_ERROR_NOT_AVAILABLE;
    }
    std::memcpy(host, hostPort, length);
    host[length] = '\0';
    const bool hasPort = hostPort[length] == ':';
    const long port = hasPort ? std::strtol(hostPort + length + 1, nullptr, 10) : 0;
    return Set(host, static_cast<unsigned short>(port));
}

NxResult CNxInetAddr::Set(const CNxString& hostPort) {
    if (hostPort.empty() || HasZeroByte(hostPort)) {
        return NX_ERROR_FAILURE;
    }
    return Set(hostPort.c_str());
}

NxResult CNxInetAddr::SetIpAddrByString(const char* host) {
    return Set(host, 0);
}
