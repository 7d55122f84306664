#include <nx/net/CNxIPAddress.h>

#include <arpa/inet.h>
#include <netdb.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr size_t c_maxDottedLength = 15;
constexpr int c_lookupFailed = -1;

// Runs one of the re-entrant look-ups, `resolve(host, buffer, size, result, error)`, with a buffer
// that is large enough. Calls `use` with the host found; returns 0 or h_errno.
template <class Resolve, class Use>
int LookUp(Resolve resolve, Use use) {
    std::vector<char> buffer(1024);
    hostent host{};
    hostent* result = nullptr;
    int error = 0;
    while (resolve(&host, buffer.data(), buffer.size(), &result, &error) == ERANGE) {
        buffer.resize(buffer.size() * 2);
    }
    if (result == nullptr) {
        return error == 0 ? NO_RECOVERY : error;
    }
    use(*result);
    return 0;
}

// 1 with the first address, 0 when the host has none of IPv4, -1 when it is not found.
int LookUpName(const char* name, in_addr& address) {
    int found = 0;
    const int error =
        LookUp([name](auto... out) { return gethostbyname_r(name, out...); },
               [&](const hostent& host) {
                   if (host.h_addrtype == AF_INET && host.h_length == sizeof address &&
                       host.h_addr_list[0] != nullptr) {
                       std::memcpy(&address, host.h_addr_list[0], sizeof address);
                       found = 1;
                   }
               });
    return error == 0 ? found : c_lookupFailed;
}

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

// One to three digits to a byte. Zero is "0" alone: "00" is more likely an octal number.
bool ParseOctet(const char* text, size_t length, unsigned char& octet) {
    assert(length >= 1 && length <= 3);
    int value = 0;
    for (size_t i = 0; i < length; ++i) {
        value = value * 10 + (text[i] - '0');
    }
    if (value > 255 || (value == 0 && length != 1)) {
        return false;
    }
    octet = static_cast<unsigned char>(value);
    return true;
}

}  // namespace

CNxIPAddress::CNxIPAddress(const char* text) {
    if (text != nullptr && *text != '\0') {
        m_valid = CNxIPAddress::ParseAddress(text);
        CNxIPAddress::FormatOutput();
    }
}

CNxIPAddress::CNxIPAddress(const CNxIPAddress& other) {
    *this = other;
}

CNxIPAddress& CNxIPAddress::operator=(const CNxIPAddress& other) {
    if (this == &other) {
        return *this;
    }
    m_valid = other.m_valid;
    if (m_valid != 0) {
        std::memcpy(m_octets, other.m_octets, sizeof m_octets);
        std::memcpy(m_hostName, other.m_hostName, sizeof m_hostName);
    }
    FormatOutput();
    return *this;
}

void CNxIPAddress::ToOctet(unsigned char* octets) const {
    if (octets != nullptr) {
        std::memcpy(octets, m_octets, sizeof m_octets);
    }
}

int CNxIPAddress::ParseAddress(const char* text) {
    // A copy, since the text may be the host name that is cleared.
    const std::string copy(text == nullptr ? "" : text);
    SetHostName("");
    m_resolverError = 0;
    if (ParseDottedIPString(copy.c_str())) {
        return 1;
    }
    in_addr address{};
    const int found = copy.empty() ? c_lookupFailed : LookUpName(copy.c_str(), address);
    if (found != 1) {
        m_resolverError = found;
        return 0;
    }
    std::memcpy(m_octets, &address, sizeof m_octets);
    SetHostName(copy.c_str());
    return 1;
}

void CNxIPAddress::FormatOutput() {
    m_text[0] = '\0';
    if (m_valid != 0) {
        std::snprintf(m_text, sizeof m_text, "%d.%d.%d.%d", m_octets[0], m_octets[1], m_octets[2],
                      m_octets[3]);
    }
}

bool CNxIPAddress::ParseDottedIPString(const char* text) {
    const size_t length = text == nullptr ? 0 : strnlen(text, c_maxDottedLength + 1);
    if (length == 0 || length > c_maxDottedLength || std::count(text, text + length, '.') != 3) {
        return false;
    }
    size_t pieces = 0;
    bool good = true;
    for (const char* at = text; at < text + length; ++at) {
        const char* end = std::find(at, text + length, '.');
        if (end == at) {
            continue;  // nothing between two dots: one piece less
        }
        if (end - at > 3 || !std::all_of(at, end, IsDigit)) {
            return false;
        }
        assert(pieces < sizeof m_octets);  // there are three dots
        const bool stored = ParseOctet(at, static_cast<size_t>(end - at), m_octets[pieces]);
        good = good && stored;
        ++pieces;
        at = end;
    }
    return good && pieces == 4;
}

void CNxIPAddress::SetIPAddr(unsigned int address) {
    std::memcpy(m_octets, &address, sizeof m_octets);
    m_valid = 1;
    SetHostName("");
    m_resolverError = 0;
    FormatOutput();
}

void CNxIPAddress::Mask(const CNxIPAddress& mask) {
    if (m_valid == 0 || mask.m_valid == 0) {
        return;
    }
    for (size_t i = 0; i < sizeof m_octets; ++i) {
        m_octets[i] = m_octets[i] & mask.m_octets[i];
    }
    FormatOutput();
}

const char* CNxIPAddress::ResolveHostname(int& error) {
    error = m_resolverError;
    if (m_hostName[0] == '\0' && m_valid != 0) {
        error = AddrToFriendly();
        if (error == 0) {
            m_resolverError = 0;
        }
    }
    return m_hostName;
}

int CNxIPAddress::AddrToFriendly() const {
    if (m_valid == 0) {
        return HOST_NOT_FOUND;
    }
    return LookUp(
        [this](auto... out) { return gethostbyaddr_r(m_octets, sizeof m_octets, AF_INET, out...); },
        [](const hostent&) {});
}

int CNxIPAddress::ResolveToHostname(const in_addr& /*address*/, char* /*name*/) {
    return -1;
}

int CNxIPAddress::ResolveToAddress(const char* name, in_addr& address) {
    return name != nullptr && LookUpName(name, address) == 1 ? 0 : -1;
}

int CNxIPAddress::IsPrivate() const {
    const unsigned char* o = m_octets;
    return m_valid != 0 &&
           (o[0] == 10 || (o[0] == 172 && o[1] == 16) || (o[0] == 192 && o[1] == 168 && o[2] == 0));
}

int CNxIPAddress::IsLoopback() const {
    return m_valid != 0 && GetNumber() == INADDR_LOOPBACK && m_hostName[0] == '\0';
}

int CNxIPAddress::IsMultiCast() const {
    return m_valid != 0 && GetNumber() >> 28 == 0xE;
}

unsigned int CNxIPAddress::IsBroadCast() const {
    return m_valid != 0 ? GetNumber() : 0;
}

unsigned int CNxIPAddress::GetNumber() const {
    unsigned int number = 0;
    std::memcpy(&number, m_octets, sizeof number);
    return number;
}

void CNxIPAddress::SetHostName(const char* name) {
    std::snprintf(m_hostName, sizeof m_hostName, "%s", name);
}
