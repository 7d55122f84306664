// Inside the library only: an endpoint in a third of the memory.
#pragma once

#include <netinet/in.h>

#include <cstring>
#include <memory>

#include <nx/net/CNxEndpoint.h>

// Kept where many are: only names of unix sockets need more than an IPv6 address does. Belongs to
// one thread at a time, but any may read it.
class CStoredEndpoint {
public:
    // Throws std::bad_alloc, with nothing changed.
    void Set(const CNxEndpoint& endpoint) {
        const bool isSmall = endpoint.GetSize() <= sizeof(m_small);
        m_large = isSmall ? nullptr : std::make_unique<const CNxEndpoint>(endpoint);
        if (isSmall) {
            std::memcpy(&m_small, endpoint.GetAddress(), endpoint.GetSize());
            m_size = endpoint.GetSize();
        }
    }

    CNxEndpoint Get() const {
        CNxEndpoint endpoint;
        if (m_large != nullptr) {
            return *m_large;
        }
        // Refused for one of no family, which it is already.
        static_cast<void>(endpoint.SetAddress(reinterpret_cast<const sockaddr*>(&m_small), m_size));
        return endpoint;
    }

private:
    sockaddr_in6 m_small{};
    socklen_t m_size = 0;
    std::unique_ptr<const CNxEndpoint> m_large;
};
