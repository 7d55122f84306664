#include <endian.h>
#include <nx/foundation/CNxRecycled.h>
#include <nx/stream/CPlacesTaken.h>

#include <cassert>
#include <cstring>
#include <new>

namespace {

// No peer has it: it would be a multicast address.
constexpr std::uint64_t c_notCounted = ~std::uint64_t{0};

// IPv4 has its place among the IPv6 prefixes where there are no addresses (RFC 4291 section 2.4).
constexpr std::uint64_t c_ipv4 = 0x0000FFFF00000000;

std::uint64_t GetKey(const CNxEndpoint& peer) {
    if (peer.GetFamily() == AF_INET) {
        sockaddr_in v4;
        std::memcpy(&v4, peer.GetAddress(), sizeof v4);
        return c_ipv4 | ntohl(v4.sin_addr.s_addr);
    }
    if (peer.GetFamily() == AF_INET6) {
        sockaddr_in6 v6;
        std::memcpy(&v6, peer.GetAddress(), sizeof v6);
        std::uint64_t prefix = 0;
        std::memcpy(&prefix, &v6.sin6_addr, sizeof prefix);
        return be64toh(prefix);
    }
    return c_notCounted;
}

}  // namespace

class CPlacesTaken::CPlace : public CNxReleasedWithSocket, public CNxRecycled {
public:
    CPlace(CPlacesTaken& places, std::uint64_t address) : m_places(&places), m_address(address) {}
    ~CPlace() override { m_places->Return(m_address); }
    CPlace(const CPlace&) = delete;
    CPlace& operator=(const CPlace&) = delete;

private:
    const CNxAutoPtr<CPlacesTaken> m_places;
    const std::uint64_t m_address;
};

std::unique_ptr<CNxReleasedWithSocket> CPlacesTaken::Take(const CNxEndpoint& peer, size_t maxTotal,
                                                          size_t maxPerAddress) {
    const std::uint64_t address = maxPerAddress == 0 ? c_notCounted : GetKey(peer);
    if ((maxTotal != 0 && GetTotal() >= maxTotal) || !CountOne(address, maxPerAddress)) {
        return nullptr;
    }
    // One acceptor takes, so nobody else has come up to the limit meanwhile.
    m_total.fetch_add(1, std::memory_order_relaxed);
    std::unique_ptr<CNxReleasedWithSocket> place(new (std::nothrow) CPlace(*this, address));
    if (place == nullptr) {
        Return(address);
    }
    return place;
}

bool CPlacesTaken::CountOne(std::uint64_t address, size_t maxPerAddress) {
    if (address == c_notCounted) {
        return true;
    }
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    try {
        size_t& count = m_perAddress[address];
        assert(count <= GetTotal());
        if (count >= maxPerAddress) {
            return false;
        }
        ++count;
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void CPlacesTaken::Return(std::uint64_t address) {
    if (address != c_notCounted) {
        CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
        const auto entry = m_perAddress.find(address);
        assert(entry != m_perAddress.end() && entry->second > 0);
        if (--entry->second == 0) {
            m_perAddress.erase(entry);
        }
    }
    m_total.fetch_sub(1, std::memory_order_relaxed);
}
