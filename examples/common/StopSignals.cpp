#include <common/StopSignals.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <utility>

namespace examples {

bool StopSignals::Open(INxReactor& reactor, std::function<void()> onSignal) {
    m_reactor = &reactor;
    m_onSignal = std::move(onSignal);
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    m_handle = signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC);
    return m_handle != -1 && m_reactor->RegisterHandler(this, NX_MASK_READ) == NX_OK;
}

void StopSignals::Close() {
    if (m_handle != -1) {
        m_reactor->RemoveHandler(this, NX_MASK_ALL_EVENTS);
        close(m_handle);
        m_handle = -1;
    }
}

int StopSignals::OnInput(int /*fd*/) {
    signalfd_siginfo info{};
    while (read(m_handle, &info, sizeof(info)) == static_cast<ssize_t>(sizeof(info))) {
        if (m_signal == 0) {
            m_signal = static_cast<int>(info.ssi_signo);
            m_onSignal();
        }
    }
    return 0;
}

}  // namespace examples
