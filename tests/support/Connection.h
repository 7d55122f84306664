// A blocking connection to a server on this machine, which may fail.
#pragma once

#include <nx/net/CNxEndpoint.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
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

private:
    int m_socket;
    bool m_isConnected = false;
};
