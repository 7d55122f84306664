#include <arpa/inet.h>
#include <net/if.h>
#include <nx/foundation/CNxUtils.h>
#include <nx/foundation/has_zero_byte.h>
#include <nx/net/CNxInetAddr.h>

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

// One place in the storage serves the port of both families.
static_assert(offsetof(sockaddr_in, sin_port) == offsetof(sockaddr_in6, sin6_port), "");

// ":80", to its last byte.
bool ParsePort(const CNxString& text, unsigned short& port) {
    const bool isNumber = text.size() > 1 && text.size() <= 6 && text[0] == ':' &&
                          text.find_first_not_of("0123456789", 1) == CNxString::npos;
    const long number = isNumber ? std::strtol(text.c_str() + 1, nullptr, 10) : -1;
    port = static_cast<unsigned short>(number);
    return port == number;
}

// The number of an interface, given as such or by name; 0 when there is none.
unsigned int ParseScope(const CNxString& text) {
    if (text.empty() || text.size() > 9 ||
        text.find_first_not_of("0123456789") != CNxString::npos) {
        return if_nametoindex(text.c_str());
    }
    return static_cast<unsigned int>(std::strtoul(text.c_str(), nullptr, 10));
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

void CNxInetAddr::ResetTo(int family) {
    assert(family == AF_INET || family == AF_INET6);
    std::memset(&m_address, 0, sizeof m_address);
    m_address.base.sa_family = static_cast<sa_family_t>(family);
    m_type = family;
    m_size = family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    m_hostName.clear();
}

bool CNxInetAddr::ParseNumeric(const CNxString& host) {
    in_addr ip4;
    if (inet_pton(AF_INET, host.c_str(), &ip4) == 1) {
        m_address.v4.sin_addr = ip4;
        return true;
    }
    ResetTo(AF_INET6);
    const size_t percent = host.find('%');
    if (inet_pton(AF_INET6, host.substr(0, percent).c_str(), &m_address.v6.sin6_addr) != 1) {
        return false;
    }
    if (percent != CNxString::npos) {
        m_address.v6.sin6_scope_id = ParseScope(host.substr(percent + 1));
    }
    return percent == CNxString::npos || m_address.v6.sin6_scope_id != 0;
}

NxResult CNxInetAddr::SetNumeric(const CNxString& host, unsigned short port) {
    CNxInetAddr parsed;
    if (HasZeroByte(host) || !parsed.ParseNumeric(host)) {
        return NX_ERROR_INVALID_ARG;
    }
    *this = parsed;
    return SetPort(port);
}

NxResult CNxInetAddr::SetNumeric(const CNxString& hostPort) {
    const bool isBracketed = !hostPort.empty() && hostPort.front() == '[';
    const size_t colon = hostPort.find(':');
    const bool isBareV6 =
        colon != CNxString::npos && hostPort.find(':', colon + 1) != CNxString::npos;
    if (!isBracketed && (colon == CNxString::npos || isBareV6)) {
        return SetNumeric(hostPort, 0);
    }
    const size_t begin = isBracketed ? 1 : 0;
    const size_t end = isBracketed ? hostPort.find(']') : colon;
    // Brackets are for IPv6 alone.
    if (end == CNxString::npos || (isBracketed && colon > end)) {
        return NX_ERROR_INVALID_ARG;
    }
    unsigned short port = 0;
    const CNxString portText = hostPort.substr(end + begin);
    if (!portText.empty() && !ParsePort(portText, port)) {
        return NX_ERROR_INVALID_ARG;
    }
    return SetNumeric(hostPort.substr(begin, end - begin), port);
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

CNxString CNxInetAddr::GetHostPort() const {
    CNxString host = IsResolved() ? GetHostAddrString() : m_hostName;
    if (IsResolved() && m_type == AF_INET6) {
        const unsigned int scope = m_address.v6.sin6_scope_id;
        host = "[" + host + (scope != 0 ? "%" + U32ToStr(scope) : CNxString()) + "]";
    }
    return host + ":" + U32ToStr(GetPort());
}

CNxString CNxInetAddr::GetHostAddrString() const {
    char text[INET6_ADDRSTRLEN];
    return GetHostAddr(text, sizeof text);
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
