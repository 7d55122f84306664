// A listening socket that keeps accepting, also when the process runs out of descriptors.
#pragma once

#include <nx/net/CNxInetAddr.h>
#include <nx/net/CNxSocket.h>
#include <nx/reactor/INxReactor.h>

#include <functional>
#include <string>

namespace examples {

// Accepts clients on a reactor. Made on any thread; the rest belongs to the reactor's. Destroyed
// closed.
//
// The reactor reports a new connection once, so none may be left waiting without a plan: when the
// system refuses to hand one over, the acceptor tries again by a timer. When the process is out of
// descriptors, it gives up a spare one to take the connection and hang up on it.
class Acceptor : public INxEventHandler, private INxTimerHandler {
public:
    // `onAccepted` takes over a connected, non-blocking socket, `onRefused` hears of a connection
    // that was hung up on.
    Acceptor(INxReactor& reactor, std::function<void(int)> onAccepted,
             std::function<void()> onRefused);
    Acceptor(const Acceptor&) = delete;
    Acceptor& operator=(const Acceptor&) = delete;

    // Returns what is wrong, or "".
    [[nodiscard]] std::string Open(const CNxInetAddr& address);
    void Close();

    // To be called now and then: goes on where not even a timer could be had.
    void OnTick();

    // Where it listens, once open; the port is that of the system when 0 was asked for.
    const CNxInetAddr& GetAddress() const { return m_address; }

    int GetHandle() const override { return m_socket.GetHandle(); }
    int OnInput(int fd) override;

private:
    enum class EResult { ACCEPTED, NONE, AGAIN_LATER };

    void OnTimeout(const CNxTimeValue& curTime, void* token) override;
    EResult AcceptOne();
    EResult HangUpOnOne();
    void TryAgain(const CNxTimeValue& wait);
    void OpenSpare();

    INxReactor& m_reactor;
    const std::function<void(int)> m_onAccepted;
    const std::function<void()> m_onRefused;
    CNxSocketTcp m_socket;
    CNxInetAddr m_address;
    CNxSocketBase m_spare;
    bool m_isStuck = false;
};

}  // namespace examples
