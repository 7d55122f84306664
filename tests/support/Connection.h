// A blocking connection to a server on this machine that takes failures as they come.
#pragma once

#include <nx/net/CNxEndpoint.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <string_view>
#include <utility>

class Connection {
public:
    // No call waits longer for the peer than `limit`.
    Connection(const CNxEndpoint& peer, std::chrono::milliseconds limit, int receiveBuffer = 0,
               int type = SOCK_STREAM)
        : Connection(socket(peer.GetFamily(), type | SOCK_CLOEXEC, 0), limit) {
        if (receiveBuffer != 0) {
            setsockopt(m_socket, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof(receiveBuffer));
        }
        m_isConnected = connect(m_socket, peer.GetAddress(), peer.GetSize()) == 0;
    }
    Connection(unsigned short port, std::chrono::milliseconds limit, int receiveBuffer = 0)
        : Connection(CNxEndpoint(CNxInetAddr("127.0.0.1", port)), limit, receiveBuffer) {}
    // Of a socket, which is its own from here on.
    Connection(int socket, std::chrono::milliseconds limit) : m_socket(socket) {
        const timeval time{limit.count() / 1000, limit.count() % 1000 * 1000};
        setsockopt(m_socket, SOL_SOCKET, SO_RCVTIMEO, &time, sizeof(time));
        setsockopt(m_socket, SOL_SOCKET, SO_SNDTIMEO, &time, sizeof(time));
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
        for (ssize_t more = 1; got < size && more > 0; got += static_cast<size_t>(more)) {
            more = std::max<ssize_t>(recv(m_socket, bytes.data() + got, size - got, 0), 0);
        }
        bytes.resize(got);
        return bytes;
    }

private:
    int m_socket;
    bool m_isConnected = false;
};
