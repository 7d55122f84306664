#include <common/SignalThread.h>
#include <nx/event/NxCall.h>

#include <cassert>
#include <chrono>
#include <system_error>
#include <utility>

namespace examples {

SignalThread::SignalThread(std::initializer_list<int> signals) : m_anySignal(*signals.begin()) {
    sigemptyset(&m_signals);
    for (const int signo : signals) {
        sigaddset(&m_signals, signo);
    }
    // Can fail for a wrong first argument only.
    pthread_sigmask(SIG_BLOCK, &m_signals, nullptr);
}

bool SignalThread::Open(INxEventQueue& queue, std::function<void(int)> onSignal,
                        std::function<void(int)> onTaken) {
    assert(!m_thread.joinable() && !m_isClosing);
    m_onSignal = std::move(onSignal);
    m_onTaken = std::move(onTaken);
    try {
        m_thread = std::thread([this, &queue] { Run(queue); });
    } catch (const std::system_error&) {
        return false;
    }
    return true;
}

void SignalThread::Close() {
    if (m_thread.joinable()) {
        m_isClosing = true;
        pthread_kill(m_thread.native_handle(), m_anySignal);
        m_thread.join();
    }
}

void SignalThread::Run(INxEventQueue& queue) {
    int signo = 0;
    while (!m_isClosing) {
        // A failed wait has taken no signal: it is still there for the next.
        if (sigwait(&m_signals, &signo) != 0 || m_isClosing) {
            continue;
        }
        assert(sigismember(&m_signals, signo) == 1);
        if (m_onTaken) {
            m_onTaken(signo);
        }
        Tell(queue, signo);
    }
}

// A queue that refuses has ended its loop: there is nobody left to be told.
void SignalThread::Tell(INxEventQueue& queue, int signo) {
    while (NxPostCall(queue, [this, signo] { m_onSignal(signo); }) == NX_ERROR_FAILURE &&
           !m_isClosing) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

}  // namespace examples
