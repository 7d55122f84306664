#include <nx/stream/CStoredEndpoint.h>

#include <cstring>

void CStoredEndpoint::Set(const CNxEndpoint& endpoint) {
    const sockaddr* const address = endpoint.GetAddress();
    const bool isNamed =
        endpoint.GetFamily() == AF_UNIX && endpoint.GetSize() > sizeof(sa_family_t);
    const auto* const name = isNamed ? new CNxEndpoint(endpoint) : nullptr;
    DropName();
    m_family = address->sa_family;
    if (m_family == AF_INET) {
        sockaddr_in v4;
        std::memcpy(&v4, address, sizeof(v4));
        m_port = v4.sin_port;
        m_word = v4.sin_addr.s_addr;
    } else if (m_family == AF_INET6) {
        sockaddr_in6 v6;
        std::memcpy(&v6, address, sizeof(v6));
        m_port = v6.sin6_port;
        m_word = v6.sin6_scope_id;
        m_rest.address = v6.sin6_addr;
    } else {
        m_rest.name = name;
    }
}

CNxEndpoint CStoredEndpoint::Get() const {
    sockaddr_storage address{};
    socklen_t size = sizeof(sa_family_t);
    address.ss_family = m_family;
    if (m_family == AF_INET) {
        const sockaddr_in v4{AF_INET, m_port, {m_word}, {}};
        std::memcpy(&address, &v4, size = sizeof(v4));
    } else if (m_family == AF_INET6) {
        const sockaddr_in6 v6{AF_INET6, m_port, 0, m_rest.address, m_word};
        std::memcpy(&address, &v6, size = sizeof(v6));
    } else if (m_family == AF_UNIX && m_rest.name != nullptr) {
        return *m_rest.name;
    }
    CNxEndpoint endpoint;
    // Refused for one of no family, which it is already.
    static_cast<void>(endpoint.SetAddress(reinterpret_cast<const sockaddr*>(&address), size));
    return endpoint;
}
