#include <common/StopSignals.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <utility>

namespace examples {

namespace {

constexpr long c_lookUsec = 100000;

}  // namespace

bool StopSignals::Open(INxReactor& reactor, std::function<void()> onStop,
                       std::function<void()> onHangUp) {
    m_reactor = &reactor;
    m_onStop = std::move(onStop);
    m_onHangUp = std::move(onHangUp);
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    if (m_onHangUp) {
        sigaddset(&signals, SIGHUP);
    }
    m_handle = signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC);
    if (m_handle == -1) {
        return false;
    }
    if (reactor.GetReactorType() == INxReactor::TYPE_REAL_TIME_SIGNAL) {
        // A signalfd does not raise a signal itself, so it is looked at now and then.
        return reactor.ScheduleTimer(this, nullptr, CNxTimeValue(0, c_lookUsec), 0) == NX_OK;
    }
    return reactor.RegisterHandler(this, NX_MASK_READ) == NX_OK;
}

void StopSignals::Close() {
    if (m_handle != -1) {
        m_reactor->CancelTimer(this);
        m_reactor->RemoveHandler(this, NX_MASK_ALL_EVENTS);
        close(m_handle);
        m_handle = -1;
    }
}

int StopSignals::OnInput(int /*fd*/) {
    signalfd_siginfo info{};
    while (read(m_handle, &info, sizeof(info)) == static_cast<ssize_t>(sizeof(info))) {
        if (info.ssi_signo == SIGHUP) {
            m_onHangUp();
        } else if (m_signal == 0) {
            m_signal = static_cast<int>(info.ssi_signo);
            m_onStop();
        }
    }
    return 0;
}

void StopSignals::OnTimeout(const CNxTimeValue& /*curTime*/, void* /*token*/) {
    OnInput(m_handle);
}

}  // namespace examples
