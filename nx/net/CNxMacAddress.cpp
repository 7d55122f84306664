#include <ifaddrs.h>
#include <net/if_arp.h>
#include <netpacket/packet.h>
#include <nx/net/CNxMacAddress.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

namespace {

constexpr size_t c_digits = 12;

struct CFormat {
    char m_separator;
    size_t m_groupDigits;  // between two separators

    bool HasSeparatorBefore(size_t digit) const { return digit != 0 && digit % m_groupDigits == 0; }
    size_t GetLength() const { return c_digits + c_digits / m_groupDigits - 1; }
};

// In the order of EFormat. All texts have different lengths but the first two.
constexpr CFormat c_formats[] = {{':', 2}, {'-', 2}, {'.', 4}, {'\0', c_digits}};

int DigitValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    const int letter = c | 0x20;
    return letter >= 'a' && letter <= 'f' ? letter - 'a' + 10 : -1;
}

bool Parse(const CNxString& text, const CFormat& format, CNxMacAddress::Bytes& bytes) {
    if (text.size() != format.GetLength()) {
        return false;
    }
    const char* at = text.data();
    for (size_t digit = 0; digit < c_digits; ++digit) {
        if (format.HasSeparatorBefore(digit) && *at++ != format.m_separator) {
            return false;
        }
        const int value = DigitValue(*at++);
        if (value < 0) {
            return false;
        }
        bytes[digit / 2] = static_cast<unsigned char>(bytes[digit / 2] << 4 | value);
    }
    assert(at == text.data() + text.size());
    return true;
}

// The interface's address, if it is one that is told by its packet address.
const sockaddr_ll* GetHardwareAddress(const ifaddrs& entry) {
    if (entry.ifa_addr == nullptr || entry.ifa_addr->sa_family != AF_PACKET) {
        return nullptr;
    }
    const auto* address = reinterpret_cast<const sockaddr_ll*>(entry.ifa_addr);
    const bool isMac = address->sll_halen == std::tuple_size<CNxMacAddress::Bytes>::value &&
                       address->sll_hatype != ARPHRD_LOOPBACK;
    return isMac ? address : nullptr;
}

void AppendMacs(const ifaddrs* entries, std::vector<CNxInterfaceMac>& interfaces) {
    for (const ifaddrs* entry = entries; entry != nullptr; entry = entry->ifa_next) {
        if (const sockaddr_ll* const address = GetHardwareAddress(*entry)) {
            CNxMacAddress::Bytes bytes{};
            std::memcpy(bytes.data(), address->sll_addr, bytes.size());
            interfaces.push_back({entry->ifa_name, CNxMacAddress(bytes)});
        }
    }
}

}  // namespace

NxResult CNxMacAddress::Set(const CNxString& text) {
    for (const CFormat& format : c_formats) {
        Bytes bytes{};
        if (Parse(text, format, bytes)) {
            m_bytes = bytes;
            return NX_OK;
        }
    }
    return NX_ERROR_INVALID_ARG;
}

CNxString CNxMacAddress::ToString(EFormat format) const {
    assert(format >= COLON && format <= BARE);
    const CFormat& form = c_formats[format];
    CNxString text;
    text.reserve(form.GetLength());
    for (size_t digit = 0; digit < c_digits; ++digit) {
        if (form.HasSeparatorBefore(digit)) {
            text += form.m_separator;
        }
        const int byte = m_bytes[digit / 2];
        text += "0123456789abcdef"[digit % 2 == 0 ? byte >> 4 : byte & 0xF];
    }
    return text;
}

std::uint64_t CNxMacAddress::GetNumber() const {
    std::uint64_t number = 0;
    for (const unsigned char byte : m_bytes) {
        number = number << 8 | byte;
    }
    return number;
}

bool CNxMacAddress::IsBroadcast() const {
    return std::all_of(m_bytes.begin(), m_bytes.end(),
                       [](unsigned char byte) { return byte == 0xFF; });
}

NxResult CNxMacAddress::GetInterfaces(std::vector<CNxInterfaceMac>& interfaces) {
    ifaddrs* entries = nullptr;
    if (getifaddrs(&entries) != 0) {
        return NX_ERROR_FAILURE;
    }
    const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(entries, &freeifaddrs);
    const size_t before = interfaces.size();
    try {
        AppendMacs(entries, interfaces);
    } catch (const std::bad_alloc&) {
        interfaces.resize(before);
        errno = ENOMEM;
        return NX_ERROR_FAILURE;
    }
    return NX_OK;
}
