// The other side: answers requests, except those that it plays deaf to.
#pragma once

#include <nx/net/CNxInetAddr.h>
#include <nx/net/CNxSocket.h>
#include <nx/reactor/INxReactor.h>

#include <cstdint>
#include <random>

namespace reliable_sender {

// Open and Close on the reactor's thread; destroyed closed.
class Peer : public INxEventHandler {
public:
    // Leaves `lose` per cent of the requests unanswered.
    Peer(INxReactor& reactor, std::uint64_t lose) : m_reactor(reactor), m_lose(lose) {}
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    // Listens on the address, whose port may be 0. False when it cannot.
    [[nodiscard]] bool Open(const CNxInetAddr& address);
    void Close();

    // What it listens on, once open.
    const CNxInetAddr& GetAddress() const { return m_address; }

    // Once closed, any thread.
    std::uint64_t GetReceived() const { return m_received; }
    std::uint64_t GetAnswered() const { return m_answered; }

    int GetHandle() const override { return m_socket.GetHandle(); }
    int OnInput(int fd) override;

private:
    void Answer(unsigned int number, const CNxInetAddr& sender);

    INxReactor& m_reactor;
    const std::uint64_t m_lose;
    CNxSocketUdp m_socket;
    CNxInetAddr m_address;
    std::mt19937 m_random{std::random_device()()};
    std::uint64_t m_received = 0;
    std::uint64_t m_answered = 0;
};

}  // namespace reliable_sender
