// Turns SIGINT and SIGTERM into a call on the reactor's thread.
#pragma once

#include <nx/reactor/INxReactor.h>

#include <functional>

namespace examples {

// A signalfd(2) on a reactor. The signals must be blocked in every thread of the process.
// Open and Close on the reactor's thread; destroyed closed.
class StopSignals : public INxEventHandler {
public:
    StopSignals() = default;
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

    // `onSignal` is called at the first of the signals. False when there is no descriptor to be
    // had.
    bool Open(INxReactor& reactor, std::function<void()> onSignal);
    void Close();

    // The first signal that came, 0 before.
    int GetSignal() const { return m_signal; }

    int GetHandle() const override { return m_handle; }
    int OnInput(int fd) override;

private:
    INxReactor* m_reactor = nullptr;
    std::function<void()> m_onSignal;
    int m_handle = -1;
    int m_signal = 0;
};

}  // namespace examples
