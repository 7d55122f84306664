// Turns SIGINT and SIGTERM, and SIGHUP on request, into calls on the reactor's thread.
#pragma once

#include <nx/reactor/INxReactor.h>

#include <functional>

namespace examples {

// A signalfd(2) on a reactor. The signals must be blocked in every thread of the process.
// Open and Close on the reactor's thread; destroyed closed.
class StopSignals : public INxEventHandler, private INxTimerHandler {
public:
    StopSignals() = default;
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

    // `onStop` is called at the first SIGINT or SIGTERM, `onHangUp` at every SIGHUP; without it
    // SIGHUP is not taken. False when there is no descriptor to be had.
    bool Open(INxReactor& reactor, std::function<void()> onStop,
              std::function<void()> onHangUp = nullptr);
    void Close();

    // The first signal to stop that came, 0 before.
    int GetSignal() const { return m_signal; }

    int GetHandle() const override { return m_handle; }
    int OnInput(int fd) override;

private:
    void OnTimeout(const CNxTimeValue& curTime, void* token) override;

    INxReactor* m_reactor = nullptr;
    std::function<void()> m_onStop;
    std::function<void()> m_onHangUp;
    int m_handle = -1;
    int m_signal = 0;
};

}  // namespace examples
