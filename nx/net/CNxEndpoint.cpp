#include <nx/net/CNxEndpoint.h>

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <cstring>

namespace {

constexpr const char* c_unixPrefix = "unix:";
constexpr size_t c_unixPrefixSize = 5;
constexpr size_t c_nameAt = offsetof(sockaddr_un, sun_path);
constexpr size_t c_nameSize = sizeof(sockaddr_un::sun_path);

// One place in the storage serves the port of both families.
static_assert(offsetof(sockaddr_in, sin_port) == offsetof(sockaddr_in6, sin6_port));

// Whether what CNxInetAddr would do without is there: the port, and the brackets that set an IPv6
// address off from it.
bool HasPort(const CNxString& text) {
    const size_t colon = text.rfind(':');
    if (colon == CNxString::npos || colon == 0) {
        return false;
    }
    return text.find(':') == colon || (text.front() == '[' && text[colon - 1] == ']');
}

in_addr GetMappedV4(const in6_addr& address) {
    in_addr v4;
    std::memcpy(&v4, address.s6_addr + 12, sizeof v4);
    return v4;
}

}  // namespace

CNxEndpoint::CNxEndpoint(const CNxInetAddr& address) {
    // One that is not resolved has no family, and is refused.
    static_cast<void>(SetAddress(address.GetPtr(), CNxInetAddr::GetInetAddrSize()));
}

NxResult CNxEndpoint::Set(const char* text) {
    if (text == nullptr) {
        return NX_ERROR_INVALID_ARG;
    }
    if (std::strncmp(text, c_unixPrefix, c_unixPrefixSize) == 0) {
        return SetUnixName(text + c_unixPrefixSize);
    }
    const bool isDual = text[0] == '*';
    const CNxString hostPort = isDual ? CNxString("[::]") + (text + 1) : CNxString(text);
    CNxInetAddr parsed;
    if (!HasPort(hostPort) || parsed.SetNumeric(hostPort) != NX_OK) {
        return NX_ERROR_INVALID_ARG;
    }
    *this = CNxEndpoint(parsed);
    m_isDual = isDual;
    return NX_OK;
}

NxResult CNxEndpoint::SetUnixName(const char* name) {
    const size_t length = std::strlen(name);
    if (length >= c_nameSize) {
        return NX_ERROR_INVALID_ARG;
    }
    *this = CNxEndpoint();
    m_address.unixName.sun_family = AF_UNIX;
    std::memcpy(m_address.unixName.sun_path, name, length);
    size_t used = length;
    if (name[0] == '@') {
        m_address.unixName.sun_path[0] = '\0';
    } else if (length != 0) {
        ++used;  // the zero byte that ends a path
    }
    m_size = static_cast<socklen_t>(c_nameAt + used);
    return NX_OK;
}

NxResult CNxEndpoint::SetAddress(const sockaddr* address, socklen_t size) {
    if (address == nullptr || size < sizeof address->sa_family) {
        return NX_ERROR_INVALID_ARG;
    }
    CNxEndpoint taken;
    switch (address->sa_family) {
        case AF_INET:
        case AF_INET6:
            taken.TakeInet(address, size);
            break;
        case AF_UNIX:
            taken.TakeUnix(address, size);
            break;
        default:
            break;
    }
    if (taken.m_size == 0) {
        return NX_ERROR_INVALID_ARG;
    }
    *this = taken;
    return NX_OK;
}

// Only what makes an address the same: neither the padding nor the flow of IPv6.
void CNxEndpoint::TakeInet(const sockaddr* address, socklen_t size) {
    assert(m_size == 0);
    if (address->sa_family == AF_INET && size >= sizeof(sockaddr_in)) {
        sockaddr_in given;
        std::memcpy(&given, address, sizeof given);
        SetV4(given.sin_addr, given.sin_port);
    } else if (address->sa_family == AF_INET6 && size >= sizeof(sockaddr_in6)) {
        sockaddr_in6 given;
        std::memcpy(&given, address, sizeof given);
        if (IN6_IS_ADDR_V4MAPPED(&given.sin6_addr)) {
            SetV4(GetMappedV4(given.sin6_addr), given.sin6_port);
            return;
        }
        m_address.v6.sin6_family = AF_INET6;
        m_address.v6.sin6_addr = given.sin6_addr;
        m_address.v6.sin6_port = given.sin6_port;
        m_address.v6.sin6_scope_id = given.sin6_scope_id;
        m_size = sizeof m_address.v6;
    }
}

void CNxEndpoint::SetV4(in_addr address, in_port_t port) {
    m_address.v4.sin_family = AF_INET;
    m_address.v4.sin_addr = address;
    m_address.v4.sin_port = port;
    m_size = sizeof m_address.v4;
}

void CNxEndpoint::TakeUnix(const sockaddr* address, socklen_t size) {
    assert(m_size == 0);
    // A path of 108 bytes has no room for its zero byte, which the system counts all the same.
    if (size > sizeof(sockaddr_un) + 1) {
        return;
    }
    const size_t given = std::min(size - c_nameAt, c_nameSize);
    m_address.unixName.sun_family = AF_UNIX;
    char* const name = m_address.unixName.sun_path;
    std::memcpy(name, reinterpret_cast<const char*>(address) + c_nameAt, given);
    size_t used = given;
    if (given != 0 && name[0] != '\0') {
        const size_t length = strnlen(name, given);
        std::memset(name + length, 0, c_nameSize - length);
        used = std::min(length + 1, c_nameSize);
    }
    m_size = static_cast<socklen_t>(c_nameAt + used);
}

NxResult CNxEndpoint::SetLocalOf(int socket) {
    Address address{};
    socklen_t size = sizeof address;
    return getsockname(socket, &address.base, &size) == 0 ? SetAddress(&address.base, size)
                                                          : NX_ERROR_FAILURE;
}

NxResult CNxEndpoint::SetPeerOf(int socket) {
    Address address{};
    socklen_t size = sizeof address;
    return getpeername(socket, &address.base, &size) == 0 ? SetAddress(&address.base, size)
                                                          : NX_ERROR_FAILURE;
}

unsigned short CNxEndpoint::GetPort() const {
    return IsInet() ? ntohs(m_address.v4.sin_port) : 0;
}

void CNxEndpoint::SetPort(unsigned short port) {
    if (IsInet()) {
        m_address.v4.sin_port = htons(port);
    }
}

std::string CNxEndpoint::GetUnixName() const {
    if (GetFamily() != AF_UNIX || m_size <= c_nameAt) {
        return {};
    }
    const char* const name = m_address.unixName.sun_path;
    const size_t used = m_size - c_nameAt;
    if (name[0] == '\0') {
        return "@" + std::string(name + 1, used - 1);
    }
    // Else it would read as an abstract name.
    const char* const prefix = name[0] == '@' ? "./" : "";
    return prefix + std::string(name, strnlen(name, used));
}

CNxString CNxEndpoint::GetInetText() const {
    return GetFamily() == AF_INET ? CNxInetAddr(&m_address.v4).GetHostPort()
                                  : CNxInetAddr(&m_address.v6).GetHostPort();
}

std::string CNxEndpoint::GetHost() const {
    if (!IsInet()) {
        return GetUnixName();
    }
    if (m_isDual) {
        return "*";
    }
    const CNxString text = GetInetText();
    const size_t bracket = GetFamily() == AF_INET6 ? 1 : 0;
    return {text.c_str() + bracket, text.rfind(':') - 2 * bracket};
}

std::string CNxEndpoint::GetText() const {
    if (GetFamily() == AF_UNIX) {
        return c_unixPrefix + GetUnixName();
    }
    if (!IsInet()) {
        return {};
    }
    return m_isDual ? "*:" + std::to_string(GetPort()) : std::string(GetInetText().c_str());
}

bool CNxEndpoint::operator==(const CNxEndpoint& other) const {
    return m_size == other.m_size && m_isDual == other.m_isDual &&
           std::memcmp(&m_address, &other.m_address, m_size) == 0;
}
