#include <arpa/inet.h>
#include <nx/net/CNxInetAddr.h>

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

constexpr size_t c_hostBufferSize = 512;

// One place in the storage serves the port of both families.
static_assert(offsetof(sockaddr_in, sin_port) == offsetof(sockaddr_in6, sin6_port), "");

bool HasZeroByte(const CNxString& text) {
    return std::strlen(text.c_str()) != text.size();
}

CNxString ToText(int family, const void* bytes) {
    char text[INET6_ADDRSTRLEN];
    const char* const written = inet_ntop(family, bytes, text, sizeof text);
    assert(written == text);
    return written;
}

}  // namespace

CNxInetAddr::CNxInetAddr() {
    ResetTo(AF_INET);
}

CNxInetAddr::CNxInetAddr(int family) {
    ResetTo(family == AF_INET6 ? AF_INET6 : AF_INET);
    m_type = family;
}

CNxInetAddr::CNxInetAddr(const sockaddr_in* address) : CNxInetAddr(AF_INET) {
    if (address == nullptr) {
        return;
    }
    std::memcpy(&m_address.v4, address, sizeof m_address.v4);
    m_address.v4.sin_family = AF_INET;
    m_port = GetPort();
}

CNxInetAddr::CNxInetAddr(const sockaddr_in6* address)
    : CNxInetAddr(address == nullptr ? AF_INET : AF_INET6) {
    if (address == nullptr) {
        return;
    }
    std::memcpy(&m_address.v6, address, sizeof m_address.v6);
    m_address.v6.sin6_family = AF_INET6;
    m_port = GetPort();
}

CNxInetAddr::CNxInetAddr(const char* host, unsigned short port) : CNxInetAddr() {
    static_cast<void>(Set(host, port));  // IsResolved() tells
}

CNxInetAddr::CNxInetAddr(const CNxString& host, unsigned short port) : CNxInetAddr() {
    static_cast<void>(Set(host, port));  // IsResolved() tells
}

CNxInetAddr::CNxInetAddr(const char* hostPort) : CNxInetAddr() {
    static_cast<void>(Set(hostPort));  // IsResolved() tells
}

void CNxInetAddr::ResetTo(int family) {
    assert(family == AF_INET || family == AF_INET6);
    std::memset(&m_address, 0, sizeof m_address);
    m_address.base.sa_family = static_cast<sa_family_t>(family);
    m_type = family;
    m_size = family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    m_hostName.clear();
}

bool CNxInetAddr::SetLiteral(const char* text) {
    in6_addr ip6;
    if (inet_pton(AF_INET6, text, &ip6) == 1) {
        ResetTo(AF_INET6);
        m_address.v6.sin6_addr = ip6;
        return true;
    }
    in_addr ip4;
    if (inet_pton(AF_INET, text, &ip4) == 1) {
        ResetTo(AF_INET);
        m_address.v4.sin_addr = ip4;
        return true;
    }
    return false;
}

NxResult CNxInetAddr::Set(const char* host, unsigned short port) {
    if (host == nullptr) {
        return NX_ERROR_FAILURE;
    }
    if (SetLiteral(host)) {
        return SetPort(port);
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

NxResult CNxInetAddr::SetIpAddrBy4Bytes(unsigned long ip, int isNetworkOrder) {
    const auto address = static_cast<uint32_t>(ip);
    ResetTo(AF_INET);
    m_address.v4.sin_addr.s_addr = isNetworkOrder != 0 ? address : htonl(address);
    return NX_OK;
}

NxResult CNxInetAddr::SetIp6AddrBy16Bytes(const char* address) {
    if (address == nullptr) {
        return NX_ERROR_INVALID_ARG;
    }
    in6_addr ip6;  // the bytes may be our own, which the reset clears
    std::memcpy(&ip6, address, sizeof ip6);
    ResetTo(AF_INET6);
    m_address.v6.sin6_addr = ip6;
    return NX_OK;
}

NxResult CNxInetAddr::SetPort(unsigned short port) {
    m_port = port;
    if (!IsInet()) {
        return NX_ERROR_FAILURE;
    }
    m_address.v4.sin_port = htons(port);
    return NX_OK;
}

unsigned short CNxInetAddr::GetPort() const {
    return IsInet() ? ntohs(m_address.v4.sin_port) : m_port;
}

int CNxInetAddr::GeIPAddrSize() const {
    if (m_type == AF_INET6) {
        return sizeof(in6_addr);
    }
    return m_type == AF_INET ? sizeof(in_addr) : 0;
}

const void* CNxInetAddr::GetIpAddrPointer() const {
    if (m_type == AF_INET6) {
        return &m_address.v6.sin6_addr;
    }
    return m_type == AF_INET ? &m_address.v4.sin_addr : nullptr;
}

unsigned int CNxInetAddr::get_ip_address() const {
    return m_type == AF_INET ? ntohl(m_address.v4.sin_addr.s_addr) : 0;
}

unsigned long CNxInetAddr::GetIpAddrIn4Bytes() const {
    return m_type == AF_INET ? m_address.v4.sin_addr.s_addr : 0;
}

NxResult CNxInetAddr::GetIp6AddrIn16Bytes(char* out) const {
    if (m_type != AF_INET6) {
        return NX_ERROR_FAILURE;
    }
    if (out == nullptr) {
        return NX_ERROR_INVALID_ARG;
    }
    std::memcpy(out, &m_address.v6.sin6_addr, sizeof(in6_addr));
    return NX_OK;
}

CNxString CNxInetAddr::GetIpDisplayName() const {
    if (!m_hostName.empty() || !IsInet()) {
        return m_hostName;
    }
    return ToText(m_type, GetIpAddrPointer());
}

const char* CNxInetAddr::GetHostAddr() const {
    static char s_text[INET6_ADDRSTRLEN];
    return GetHostAddr(s_text, sizeof s_text);
}

const char* CNxInetAddr::GetHostAddr(char* buffer, int size) const {
    if (buffer == nullptr || size <= 0) {
        return "";
    }
    const auto room = static_cast<socklen_t>(size);
    const char* text = m_type == AF_INET6
                           ? inet_ntop(AF_INET6, &m_address.v6.sin6_addr, buffer, room)
                           : inet_ntop(AF_INET, &m_address.v4.sin_addr, buffer, room);
    if (text == nullptr) {
        buffer[0] = '\0';
    }
    return buffer;
}

bool CNxInetAddr::IsIpAddress(const CNxString& text) {
    in6_addr unused;
    return !HasZeroByte(text) && (inet_pton(AF_INET6, text.c_str(), &unused) == 1 ||
                                  inet_pton(AF_INET, text.c_str(), &unused) == 1);
}

bool CNxInetAddr::IpAddrStringTo4Bytes(const char* text, unsigned long& out) {
    out = 0;
    if (text == nullptr || *text == '\0') {
        return true;
    }
    in_addr address;
    if (inet_pton(AF_INET, text, &address) != 1) {
        return false;
    }
    out = address.s_addr;
    return true;
}

bool CNxInetAddr::Ip6AddrStringTo16Bytes(const char* text, char* out) {
    if (text == nullptr || *text == '\0') {
        return true;
    }
    in6_addr address;
    if (out == nullptr || inet_pton(AF_INET6, text, &address) != 1) {
        return false;
    }
    std::memcpy(out, &address, sizeof address);
    return true;
}

CNxString CNxInetAddr::IpAddr4BytesToString(unsigned long ip) {
    const auto address = static_cast<uint32_t>(ip);
    return ToText(AF_INET, &address);
}

CNxString CNxInetAddr::IpAddr6BytesToString(const char* address) {
    return address == nullptr ? CNxString() : ToText(AF_INET6, address);
}

bool CNxInetAddr::operator==(const CNxInetAddr& other) const {
    const auto size = static_cast<size_t>(std::clamp(m_size, 0, GetInetAddrSize()));
    return m_type == other.m_type && m_size == other.m_size &&
           std::memcmp(&m_address, &other.m_address, size) == 0;
}

bool CNxInetAddr::operator<(const CNxInetAddr& other) const {
    if (m_type != other.m_type) {
        return m_type < other.m_type;
    }
    if (m_type == AF_INET && get_ip_address() != other.get_ip_address()) {
        return get_ip_address() < other.get_ip_address();
    }
    if (m_type != AF_INET6) {
        return GetPort() < other.GetPort();
    }
    const sockaddr_in6& mine = m_address.v6;
    const sockaddr_in6& theirs = other.m_address.v6;
    const int order = std::memcmp(&mine.sin6_addr, &theirs.sin6_addr, sizeof mine.sin6_addr);
    if (order != 0) {
        return order < 0;
    }
    if (GetPort() != other.GetPort()) {
        return GetPort() < other.GetPort();
    }
    return mine.sin6_scope_id < theirs.sin6_scope_id;
}

unsigned int CNxInetAddr::hash() const {
    if (m_type != AF_INET6) {
        return get_ip_address() + GetPort();
    }
    uint32_t words[4];
    std::memcpy(words, &m_address.v6.sin6_addr, sizeof words);
    return words[0] + words[1] + words[2] + words[3] + GetPort();
}
