// A MAC address: the 48-bit hardware address of a network interface.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include <nx/foundation/CNxString.h>
#include <nx/foundation/NxResult.h>

struct CNxInterfaceMac;

// A plain value of six bytes, in the order in which they are written and sent; all zero at first.
class CNxMacAddress {
public:
    enum EFormat {
        COLON,   // 01:23:45:67:89:ab
        DASH,    // 01-23-45-67-89-ab
        DOTTED,  // 0123.4567.89ab
        BARE,    // 0123456789ab
    };
    using Bytes = std::array<unsigned char, 6>;

    CNxMacAddress() = default;
    explicit CNxMacAddress(const Bytes& bytes) : m_bytes(bytes) {}

    // Reads any of the formats: all twelve hexadecimal digits, of either case, and nothing else.
    // NX_OK, or NX_ERROR_INVALID_ARG with the address unchanged.
    [[nodiscard]] NxResult Set(const CNxString& text);

    // With small letters.
    CNxString ToString(EFormat format = COLON) const;

    const Bytes& GetBytes() const { return m_bytes; }
    // The first byte is the highest.
    std::uint64_t GetNumber() const;

    bool IsZero() const { return GetNumber() == 0; }
    bool IsBroadcast() const;  // ff:ff:ff:ff:ff:ff
    // The bits of the first byte (IEEE 802, 8.2): to a group, the broadcast address among them; and
    // made up by an administrator or a program, not by the maker of the interface.
    bool IsMulticast() const { return (m_bytes[0] & 1) != 0; }
    bool IsLocallyAdministered() const { return (m_bytes[0] & 2) != 0; }

    bool operator==(const CNxMacAddress& other) const { return m_bytes == other.m_bytes; }
    bool operator!=(const CNxMacAddress& other) const { return m_bytes != other.m_bytes; }
    // By the first byte in which they differ.
    bool operator<(const CNxMacAddress& other) const { return m_bytes < other.m_bytes; }

    // Appends the machine's network interfaces that have a MAC address, in the system's order,
    // those that are down too. Left out: loopback, and kinds with another hardware address or none.
    // NX_OK, or NX_ERROR_FAILURE with errno, that of getifaddrs(3) or ENOMEM, and nothing appended.
    [[nodiscard]] static NxResult GetInterfaces(std::vector<CNxInterfaceMac>& interfaces);

private:
    Bytes m_bytes{};
};

// For std::unordered_map and its kin.
struct CNxMacAddressHash {
    size_t operator()(const CNxMacAddress& address) const noexcept {
        return std::hash<std::uint64_t>()(address.GetNumber());
    }
};

struct CNxInterfaceMac {
    CNxString m_name;  // as in "eth0"
    CNxMacAddress m_address;
};
