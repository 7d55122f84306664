#include <net/if.h>
#include <netinet/in.h>
#include <nx/stream/datagram_socket.h>
#include <sys/socket.h>

#include <cstring>

namespace {

constexpr int c_maxHops = 255;

// What is asked of a socket before it is bound. The first failure is kept, with its errno.
class CSetting {
public:
    explicit CSetting(int socket) : m_socket(socket) {}

    template <class Value>
    void Set(int level, int option, const Value& value) {
        m_isGood = m_isGood && setsockopt(m_socket, level, option, &value, sizeof(value)) == 0;
    }
    void SetIf(bool isWanted, int level, int option, int value) {
        if (isWanted) {
            Set(level, option, value);
        }
    }
    bool IsGood() const { return m_isGood; }

private:
    const int m_socket;
    bool m_isGood = true;
};

void SetV4(CSetting& setting, const CNxDatagramOptions& options, unsigned interface) {
    setting.SetIf(options.ttl != 0, IPPROTO_IP, IP_TTL, options.ttl);
    setting.SetIf(options.multicastTtl != 0, IPPROTO_IP, IP_MULTICAST_TTL, options.multicastTtl);
    setting.SetIf(!options.multicastLoop, IPPROTO_IP, IP_MULTICAST_LOOP, 0);
    if (interface != 0) {
        ip_mreqn request{};
        request.imr_ifindex = static_cast<int>(interface);
        setting.Set(IPPROTO_IP, IP_MULTICAST_IF, request);
    }
}

void SetV6(CSetting& setting, const CNxDatagramOptions& options, unsigned interface) {
    setting.SetIf(options.ttl != 0, IPPROTO_IPV6, IPV6_UNICAST_HOPS, options.ttl);
    setting.SetIf(options.multicastTtl != 0, IPPROTO_IPV6, IPV6_MULTICAST_HOPS,
                  options.multicastTtl);
    setting.SetIf(!options.multicastLoop, IPPROTO_IPV6, IPV6_MULTICAST_LOOP, 0);
    setting.SetIf(interface != 0, IPPROTO_IPV6, IPV6_MULTICAST_IF, static_cast<int>(interface));
}

bool IsGroup(const CNxEndpoint& endpoint) {
    const auto* const address = endpoint.GetAddress();
    if (endpoint.GetFamily() == AF_INET) {
        return IN_MULTICAST(ntohl(reinterpret_cast<const sockaddr_in*>(address)->sin_addr.s_addr));
    }
    return endpoint.GetFamily() == AF_INET6 &&
           IN6_IS_ADDR_MULTICAST(&reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr);
}

}  // namespace

bool AreInRange(const CNxDatagramOptions& options) {
    const auto isHops = [](int ttl) { return ttl >= 0 && ttl <= c_maxHops; };
    return options.maxReceived >= 1 && options.maxReceived <= c_maxDatagram &&
           options.receivedPerTurn >= 1 && options.maxUnsent >= 1 && options.receiveBuffer >= 0 &&
           options.sendBuffer >= 0 && isHops(options.ttl) && isHops(options.multicastTtl);
}

bool FindInterface(const std::string& name, unsigned& index) {
    index = name.empty() ? 0 : if_nametoindex(name.c_str());
    return name.empty() || index != 0;
}

bool SetUpDatagramSocket(int socket, const CNxEndpoint& endpoint, const CNxDatagramOptions& options,
                         unsigned interface) {
    CSetting setting(socket);
    const int family = endpoint.GetFamily();
    setting.SetIf(options.receiveBuffer != 0, SOL_SOCKET, SO_RCVBUF, options.receiveBuffer);
    setting.SetIf(options.sendBuffer != 0, SOL_SOCKET, SO_SNDBUF, options.sendBuffer);
    setting.SetIf(family != AF_UNIX, SOL_SOCKET, SO_RXQ_OVFL, 1);
    setting.SetIf(options.reusePort, SOL_SOCKET, SO_REUSEPORT, 1);
    setting.SetIf(options.reuseAddress, SOL_SOCKET, SO_REUSEADDR, 1);
    setting.SetIf(options.broadcast, SOL_SOCKET, SO_BROADCAST, 1);
    setting.SetIf(family == AF_INET6, IPPROTO_IPV6, IPV6_V6ONLY, endpoint.IsDual() ? 0 : 1);
    if (family == AF_INET || endpoint.IsDual()) {
        SetV4(setting, options, interface);
    }
    if (family == AF_INET6) {
        SetV6(setting, options, interface);
    }
    return setting.IsGood();
}

NxResult ChangeMembership(int socket, const CNxEndpoint& group, const std::string& interface,
                          int option) {
    if (socket == -1) {
        return NX_ERROR_NOT_INITIALIZED;
    }
    group_req request{};
    if (!IsGroup(group) || !FindInterface(interface, request.gr_interface)) {
        return NX_ERROR_INVALID_ARG;
    }
    std::memcpy(&request.gr_group, group.GetAddress(), group.GetSize());
    const int level = group.GetFamily() == AF_INET ? IPPROTO_IP : IPPROTO_IPV6;
    const int changed = setsockopt(socket, level, option, &request, sizeof(request));
    return changed == 0 ? NX_OK : NX_ERROR_FAILURE;
}
