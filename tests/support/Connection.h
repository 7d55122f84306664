// A blocking connection to a server on this machine that takes failures as they come.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <string_view>
#include <utility>

class Connection {
public:
    // No call waits longer for the peer than `limit`.
    Connection(unsigned short port, std::chrono::milliseconds limit, int receiveBuffer = 0)
        : Connection(AF_INET, limit) {
        if (receiveBuffer != 0) {
            setsockopt(m_socket, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof(receiveBuffer));
        }
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        Connect(address);
    }
    // To a unix socket.
    Connection(const std::string& path, std::chrono::milliseconds limit)
        : Connection(AF_UNIX, limit) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        Connect(address);
    }
    Connection(Connection&& other) noexcept
        : m_socket(std::exchange(other.m_socket, -1)), m_isConnected(other.m_isConnected) {}
    Connection& operator=(Connection&&) = delete;
    ~Connection() { close(m_socket); }

    int GetHandle() const { return m_socket; }
    bool IsConnected() const { return m_isConnected; }

    // Whether all of it could be sent.
    bool TrySend(std::string_view bytes) const {
        const ssize_t sent = send(m_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        return sent == static_cast<ssize_t>(bytes.size());
    }

    // So many bytes, less when the server hangs up or is silent.
    std::string Receive(size_t size) const {
        std::string bytes(size, '\0');
        size_t got = 0;
        while (got < size) {
            const ssize_t received = recv(m_socket, bytes.data() + got, size - got, 0);
            if (received <= 0) {
                break;
            }
            got += static_cast<size_t>(received);
        }
        bytes.resize(got);
        return bytes;
    }

private:
    Connection(int family, std::chrono::milliseconds limit)
        : m_socket(socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const timeval time{limit.count() / 1000, limit.count() % 1000 * 1000};
        setsockopt(m_socket, SOL_SOCKET, SO_RCVTIMEO, &time, sizeof(time));
        setsockopt(m_socket, SOL_SOCKET, SO_SNDTIMEO, &time, sizeof(time));
    }
    template <class Address>
    void Connect(const Address& address) {
        const auto* const generic = reinterpret_cast<const sockaddr*>(&address);
        m_isConnected = connect(m_socket, generic, sizeof(address)) == 0;
    }

    int m_socket;
    bool m_isConnected = false;
};
