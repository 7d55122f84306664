// Connected sockets on 127.0.0.1: where servers get them, the clients that they have, and what both
// do with them.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <nx/nx.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "bench.h"

namespace bench {

inline constexpr size_t c_room = 65536;  // no message is longer
inline constexpr size_t c_readyAtOnce = 1024;

// Serves connected, non-blocking sockets until the process is ended. The system takes each reply
// whole: no more than a message is under way, and the send buffers hold that.
using Sockets = std::vector<int>;
using Serve = void (*)(const Sockets& sockets);

// What is sent and expected.
inline std::vector<char> MakeMessage(size_t size) {
    std::vector<char> message(size);
    for (size_t i = 0; i < size; ++i) {
        message[i] = static_cast<char>(i * 31 + 7);
    }
    return message;
}

inline void SendAll(int fd, const char* data, ssize_t size) {
    Require(send(fd, data, static_cast<size_t>(size), MSG_NOSIGNAL) == size, "send");
}

// Whether there was something to receive.
inline bool EchoOnce(int fd, char* buffer) {
    const ssize_t got = recv(fd, buffer, c_room, 0);
    if (got <= 0) {
        Require(got == -1 && errno == EAGAIN, "recv");
        return false;
    }
    SendAll(fd, buffer, got);
    return true;
}

template <class Action>
[[noreturn]] void RunEpoll(const Sockets& sockets, Action onReady) {
    const int epoll = epoll_create1(EPOLL_CLOEXEC);
    for (const int fd : sockets) {
        epoll_event wanted{};
        wanted.events = EPOLLIN | EPOLLET;
        wanted.data.fd = fd;
        Require(epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &wanted) == 0, "epoll_ctl");
    }
    std::array<epoll_event, c_readyAtOnce> ready{};
    for (;;) {
        const int count = epoll_wait(epoll, ready.data(), c_readyAtOnce, -1);
        for (int i = 0; i < count; ++i) {
            onReady(ready[static_cast<size_t>(i)].data.fd);
        }
    }
}

// On 127.0.0.1, at any port.
class Listener {
public:
    Listener() {
        const int room = 1 << 20;  // the system gives what it allows
        m_address.sin_family = AF_INET;
        m_address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        auto* const address = reinterpret_cast<sockaddr*>(&m_address);
        socklen_t length = sizeof(m_address);
        Require(setsockopt(m_fd, SOL_SOCKET, SO_SNDBUF, &room, sizeof(room)) == 0 &&
                    bind(m_fd, address, length) == 0 && listen(m_fd, SOMAXCONN) == 0 &&
                    getsockname(m_fd, address, &length) == 0,
                "listen");
    }

    int Accept() const {
        const int fd = accept4(m_fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        const int on = 1;
        Require(fd != -1 && setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on)) == 0,
                "accept");
        return fd;
    }

    // The far side is reset when the socket is closed, so that no port stays in use.
    int Connect() const {
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const int on = 1;
        const linger reset{1, 0};
        Require(
            connect(fd, reinterpret_cast<const sockaddr*>(&m_address), sizeof(m_address)) == 0 &&
                setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on)) == 0 &&
                setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset)) == 0,
            "connect");
        return fd;
    }

private:
    const int m_fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in m_address{};
};

class Client {
public:
    Client(const Listener& listener, size_t connections, size_t size)
        : m_message(MakeMessage(size)), m_connections(connections) {
        for (size_t i = 0; i < connections; ++i) {
            m_connections[i].fd = listener.Connect();
            epoll_event wanted{};
            wanted.events = EPOLLIN;
            wanted.data.ptr = &m_connections[i];
            Require(epoll_ctl(m_epoll, EPOLL_CTL_ADD, m_connections[i].fd, &wanted) == 0,
                    "epoll_ctl");
        }
    }

    // So many messages in all, and all their replies.
    void Run(long messages) {
        long unsent = messages;
        for (const Connection& connection : m_connections) {
            Send(connection, unsent);
        }
        ReceiveAll(messages, [&](const Connection& connection) { Send(connection, unsent); });
    }

    // One byte on the first connection, upon which the message comes on each.
    void AskForAll() {
        SendAll(m_connections[0].fd, m_message.data(), 1);
        ReceiveAll(static_cast<long>(m_connections.size()), [](const Connection&) {});
    }

private:
    struct Connection {
        int fd = -1;
        size_t got = 0;  // bytes of the reply
    };

    void Send(const Connection& connection, long& unsent) const {
        if (unsent > 0) {
            --unsent;
            SendAll(connection.fd, m_message.data(), static_cast<ssize_t>(m_message.size()));
        }
    }

    template <class Action>
    void ReceiveAll(long replies, Action onReply) {
        std::array<epoll_event, c_readyAtOnce> ready{};
        while (replies > 0) {
            const int count = epoll_wait(m_epoll, ready.data(), c_readyAtOnce, -1);
            for (int i = 0; i < count; ++i) {
                auto& connection =
                    *static_cast<Connection*>(ready[static_cast<size_t>(i)].data.ptr);
                if (Receive(connection)) {
                    --replies;
                    onReply(connection);
                }
            }
        }
    }

    // Whether the reply is complete.
    bool Receive(Connection& connection) {
        const ssize_t got = recv(connection.fd, m_buffer.data(), c_room, MSG_DONTWAIT);
        Require(got > 0 && connection.got + static_cast<size_t>(got) <= m_message.size() &&
                    std::memcmp(m_buffer.data(), &m_message[connection.got],
                                static_cast<size_t>(got)) == 0,
                "the reply is not what was sent");
        connection.got += static_cast<size_t>(got);
        const bool isComplete = connection.got == m_message.size();
        connection.got = isComplete ? 0 : connection.got;
        return isComplete;
    }

    const int m_epoll = epoll_create1(EPOLL_CLOEXEC);
    const std::vector<char> m_message;
    std::vector<Connection> m_connections;
    std::vector<char> m_buffer = std::vector<char>(c_room);
};

inline void AllowDescriptors(rlim_t count) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::max(limit.rlim_cur, count);
    Require(setrlimit(RLIMIT_NOFILE, &limit) == 0, "ulimit -n is too low");
}

// Starts a process on processor 0 that accepts so many and serves them.
inline pid_t StartServer(const Listener& listener, long connections, Serve serve) {
    AllowDescriptors(static_cast<rlim_t>(connections) + 100);
    return StartProcess([&] {
        PinTo(0);
        Sockets sockets;
        for (long i = 0; i < connections; ++i) {
            sockets.push_back(listener.Accept());
        }
        serve(sockets);
    });
}

// Opens each socket on a network thread.
template <class Open>
[[noreturn]] void ServeOnReactor(const Sockets& sockets, const Open& open) {
    CNxThread* network = nullptr;
    Require(CNxThreadManager::Instance()->CreateNetworkThread(
                NX_THREAD_NETWORK, CNxThreadManager::CreateNetworkReactor(), network) == NX_OK,
            "CreateNetworkThread");
    INxReactor& reactor = *network->GetReactor();
    const auto openAll = [&] {
        for (const int fd : sockets) {
            Require(open(reactor, fd) == NX_OK, "open");
        }
        return NX_OK;
    };
    Require(NxSendCall(reactor, openAll) == NX_OK, "NxSendCall");
    for (;;) {
        pause();
    }
}

// Connections of the library, which are in `all` before anything is received.
using NxConnections = std::vector<CNxAutoPtr<CNxConnection>>;

[[noreturn]] inline void ServeConnections(const Sockets& sockets, INxConnectionSink& sink,
                                          const CNxConnection::Options& options,
                                          NxConnections* all = nullptr) {
    ServeOnReactor(sockets, [&](INxReactor& reactor, int fd) {
        CNxConnectedSocket socket;
        socket.socket.SetHandle(fd);
        CNxAutoPtr<CNxConnection> made;
        const NxResult result =
            CNxConnection::Create(made, reactor, std::move(socket), sink, options);
        if (all != nullptr) {
            all->push_back(made);
        }
        return result;
    });
}

class NxEchoSink : public INxConnectionSink {
    void OnReceive(CNxConnection& connection, CNxMessageChain& received) override {
        Require(connection.Send(std::move(received)) == NX_OK, "Send");
    }
};

}  // namespace bench
