#include <netinet/in.h>
#include <nx/foundation/high_descriptor.h>
#include <nx/resolve/CDnsChannel.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <limits>
#include <new>
#include <utility>

namespace {

// One place serves the port of both families.
static_assert(offsetof(sockaddr_in, sin_port) == offsetof(sockaddr_in6, sin6_port), "");

CDnsChannel& Self(void* self) {
    return *static_cast<CDnsChannel*>(self);
}

NxResult ToResult(int status) {
    switch (status) {
        case ARES_SUCCESS:
            return NX_OK;
        case ARES_ENODATA:
        case ARES_ENOTFOUND:
        case ARES_EBADNAME:
            return NX_ERROR_NOT_AVAILABLE;
        case ARES_ETIMEOUT:
            return NX_ERROR_TIMEOUT;
        default:
            return NX_ERROR_FAILURE;
    }
}

std::vector<CNxInetAddr> ToAddresses(const ares_addrinfo* found) {
    std::vector<CNxInetAddr> addresses;
    const ares_addrinfo_node* node = found != nullptr ? found->nodes : nullptr;
    for (; node != nullptr; node = node->ai_next) {
        if (node->ai_family == AF_INET) {
            addresses.emplace_back(reinterpret_cast<const sockaddr_in*>(node->ai_addr));
        } else if (node->ai_family == AF_INET6) {
            addresses.emplace_back(reinterpret_cast<const sockaddr_in6*>(node->ai_addr));
        }
    }
    return addresses;
}

// The shortest of the chain.
long ToTtl(const ares_addrinfo* found) {
    int ttl = std::numeric_limits<int>::max();
    const ares_addrinfo_node* node = found != nullptr ? found->nodes : nullptr;
    for (; node != nullptr; node = node->ai_next) {
        ttl = std::min(ttl, node->ai_ttl);
    }
    const ares_addrinfo_cname* alias = found != nullptr ? found->cnames : nullptr;
    for (; alias != nullptr; alias = alias->next) {
        ttl = std::min(ttl, alias->ttl);
    }
    return ttl;
}

ares_addr_port_node ToNode(const CNxInetAddr& server) {
    ares_addr_port_node node{};
    node.family = server.GetType();
    std::memcpy(&node.addr, server.GetIpAddrPointer(), static_cast<size_t>(server.GeIPAddrSize()));
    node.udp_port = server.GetPort();
    node.tcp_port = server.GetPort();
    return node;
}

}  // namespace

const ares_socket_functions CDnsChannel::s_socketFunctions = {
    &CDnsChannel::Socket, &CDnsChannel::Close, &CDnsChannel::Connect, &CDnsChannel::Receive,
    &CDnsChannel::Send};

CDnsChannel::~CDnsChannel() {
    if (m_channel != nullptr) {
        ares_destroy(m_channel);
        ares_library_cleanup();
    }
    assert(m_lookups == 0);
}

NxResult CDnsChannel::Open(const CDnsSettings& settings, size_t first) {
    assert(m_channel == nullptr);
    if (ares_library_init(ARES_LIB_INIT_ALL) != ARES_SUCCESS) {
        return NX_ERROR_FAILURE;
    }
    ares_options options{};
    options.timeout = settings.m_timeoutMs;
    options.tries = settings.m_tries;
    const int mask = ARES_OPT_TIMEOUTMS | ARES_OPT_TRIES;
    if (ares_init_options(&m_channel, &options, mask) != ARES_SUCCESS) {
        m_channel = nullptr;
        ares_library_cleanup();
        return NX_ERROR_FAILURE;
    }
    ares_set_socket_functions(m_channel, &s_socketFunctions, this);
    return SetServers(settings, first) ? NX_OK : NX_ERROR_FAILURE;
}

bool CDnsChannel::GetServers(ares_channel channel, Nodes& nodes) {
    ares_addr_port_node* servers = nullptr;
    if (ares_get_servers_ports(channel, &servers) != ARES_SUCCESS) {
        return false;
    }
    for (const ares_addr_port_node* server = servers; server != nullptr; server = server->next) {
        nodes.push_back(*server);
    }
    ares_free_data(servers);
    return true;
}

bool CDnsChannel::SetServers(const CDnsSettings& settings, size_t first) {
    Nodes nodes;
    if (settings.m_servers.empty()) {
        if (!GetServers(m_channel, nodes)) {
            return false;
        }
    } else {
        std::transform(settings.m_servers.begin(), settings.m_servers.end(),
                       std::back_inserter(nodes), &ToNode);
    }
    m_servers = nodes.size();
    if (nodes.empty()) {
        return true;
    }
    const auto middle = nodes.begin() + static_cast<Nodes::difference_type>(first % m_servers);
    std::rotate(nodes.begin(), middle, nodes.end());
    for (size_t i = 0; i < nodes.size(); ++i) {
        nodes[i].next = i + 1 < nodes.size() ? &nodes[i + 1] : nullptr;
    }
    return ares_set_servers_ports(m_channel, nodes.data()) == ARES_SUCCESS;
}

void CDnsChannel::Start(CDnsLookup& lookup) {
    assert(m_channel != nullptr && lookup.m_channel == nullptr);
    lookup.m_channel = this;
    ++m_lookups;
    ares_addrinfo_hints hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    ares_getaddrinfo(m_channel, lookup.GetHostName().c_str(), nullptr, &hints,
                     &CDnsChannel::OnAnswer, &lookup);
}

void CDnsChannel::OnAnswer(void* lookup, int status, int timeouts, ares_addrinfo* found) {
    CDnsLookup& ended = *static_cast<CDnsLookup*>(lookup);
    CDnsChannel& channel = *ended.m_channel;
    NxResult result = ToResult(status);
    std::vector<CNxInetAddr> addresses;
    long ttlSeconds = 0;
    if (result == NX_OK) {
        try {
            addresses = ToAddresses(found);
            ttlSeconds = ToTtl(found);
        } catch (const std::bad_alloc&) {
            result = NX_ERROR_FAILURE;
        }
    }
    ares_freeaddrinfo(found);
    ended.Complete(result, std::move(addresses), ttlSeconds);
    assert(channel.m_lookups > 0);
    --channel.m_lookups;
    channel.m_user.OnLookupEnd(channel, ended, timeouts);
}

// Of a stream one call takes one piece.
void CDnsChannel::OnReady(int fd, bool isInput) {
    do {
        m_hasRead = false;
        ares_process_fd(m_channel, isInput ? fd : ARES_SOCKET_BAD, isInput ? ARES_SOCKET_BAD : fd);
    } while (m_hasRead);
}

void CDnsChannel::OnFailed(int fd, int error) {
    m_error = error != 0 ? error : ECONNRESET;
    ares_process_fd(m_channel, fd, ARES_SOCKET_BAD);
    m_error = 0;
}

void CDnsChannel::OnTimeout() {
    ares_process_fd(m_channel, ARES_SOCKET_BAD, ARES_SOCKET_BAD);
}

std::optional<long> CDnsChannel::GetTimeout() const {
    timeval left{};
    if (ares_timeout(m_channel, nullptr, &left) == nullptr) {
        return std::nullopt;
    }
    return left.tv_sec * 1000000 + left.tv_usec;
}

ares_socket_t CDnsChannel::Socket(int family, int type, int protocol, void* /*self*/) {
    return ToHighDescriptor(socket(family, type | SOCK_CLOEXEC | SOCK_NONBLOCK, protocol));
}

int CDnsChannel::Close(ares_socket_t fd, void* self) {
    Self(self).m_user.OnSocketClosing(fd);
    return close(fd);
}

int CDnsChannel::Connect(ares_socket_t fd, const sockaddr* to, ares_socklen_t size, void* self) {
    const int result = connect(fd, to, size);
    // With port 0 it only sees how a found address would be reached.
    const bool isServer = reinterpret_cast<const sockaddr_in*>(to)->sin_port != 0;
    if (!isServer || (result == -1 && errno != EINPROGRESS)) {
        return result;
    }
    if (!Self(self).m_user.OnSocketOpened(Self(self), fd)) {
        errno = ENOMEM;
        return -1;
    }
    errno = EINPROGRESS;  // as connect has left it, if it has failed
    return result;
}

ares_ssize_t CDnsChannel::Receive(ares_socket_t fd, void* buffer, size_t size, int flags,
                                  sockaddr* from, ares_socklen_t* fromSize, void* self) {
    CDnsChannel& channel = Self(self);
    if (channel.m_error != 0) {
        // Once: a new socket may have the number of the one that failed.
        errno = std::exchange(channel.m_error, 0);
        return -1;
    }
    const ssize_t received = recvfrom(fd, buffer, size, flags, from, fromSize);
    channel.m_hasRead = received > 0;
    return received;
}

// Its own would raise SIGPIPE.
ares_ssize_t CDnsChannel::Send(ares_socket_t fd, const iovec* data, int count, void* /*self*/) {
    msghdr message{};
    message.msg_iov = const_cast<iovec*>(data);
    message.msg_iovlen = static_cast<size_t>(count);
    const ssize_t sent = sendmsg(fd, &message, MSG_NOSIGNAL);
    // That is about an earlier datagram (udp(7)): only the one that goes now would be sent to
    // another server. It meets the same fate, and then the socket tells for all.
    return sent == -1 && errno == ECONNREFUSED ? sendmsg(fd, &message, MSG_NOSIGNAL) : sent;
}
