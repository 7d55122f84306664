// Inside the library only: an endpoint in a fifth of the memory.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <utility>

#include <nx/net/CNxEndpoint.h>

// Kept where many are: only names of unix sockets take more. Belongs to one thread at a time, but
// any may read it.
class CStoredEndpoint {
public:
    // Of no family.
    CStoredEndpoint() = default;
    ~CStoredEndpoint() { DropName(); }
    CStoredEndpoint(const CStoredEndpoint&) = delete;
    CStoredEndpoint& operator=(const CStoredEndpoint&) = delete;

    // Throws std::bad_alloc, with nothing changed.
    void Set(const CNxEndpoint& endpoint);
    CNxEndpoint Get() const;
    int GetFamily() const { return m_family; }

private:
    union Rest {
        in6_addr address{};       // of IPv6
        const CNxEndpoint* name;  // of a unix socket; null without one
    };

    void DropName() {
        if (m_family == AF_UNIX) {
            delete std::exchange(m_rest.name, nullptr);
        }
    }

    sa_family_t m_family = AF_UNSPEC;
    in_port_t m_port = 0;      // as in the system's structures
    std::uint32_t m_word = 0;  // the address of IPv4, the scope of IPv6
    Rest m_rest;
};
