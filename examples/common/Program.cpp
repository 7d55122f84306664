#include <common/Program.h>
#include <fcntl.h>
#include <nx/event/NxCall.h>
#include <nx/foundation/CNxOwnLines.h>
#include <nx/reactor/INxReactor.h>
#include <nx/thread/CNxThread.h>
#include <nx/thread/CNxThreadManager.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace examples {

void Require(NxResult result, const char* what) {
    if (!NxSucceeded(result)) {
        std::exit(Fail(std::string("cannot ") + what + " (" + NxResultName(result) + ")"));
    }
}

bool AllowDescriptors(rlim_t wanted) {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return false;
    }
    if (limit.rlim_cur >= wanted) {
        return true;
    }
    limit.rlim_cur = wanted;
    return limit.rlim_max >= wanted && setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

void StopMain() {
    CNxThreadManager::Instance()->GetThread(NX_THREAD_MAIN)->Stop(nullptr);
}

Program::Program(std::initializer_list<int> signals) : m_signals(signals) {
    int fd = open("/dev/null", O_RDWR);
    while (fd >= 0 && fd <= STDERR_FILENO) {
        fd = dup(fd);
    }
    close(fd);
}

bool Program::Init(int argc, char** argv) {
    // Standard output is the program's own.
    CNxOwnLines::Send(CNxOwnLines::TO_TRACE);
    return CNxThreadManager::Instance()->InitMainThread(argc, argv) == NX_OK;
}

bool Program::StartNetwork(INxReactor* reactor) {
    assert(m_network == nullptr);
    return CNxThreadManager::Instance()->CreateNetworkThread(NX_THREAD_NETWORK, reactor,
                                                             m_network) == NX_OK;
}

INxReactor& Program::GetReactor() const {
    assert(m_network != nullptr);
    return *m_network->GetReactor();
}

std::string Program::Run(const NetworkWork& work) {
    CNxThreadManager* const threads = CNxThreadManager::Instance();
    std::string error = OpenAll(work);
    if (error.empty()) {
        threads->GetThread(NX_THREAD_MAIN)->OnThreadRun();
        m_isServing = false;
        error = m_isNetworkGone ? "the network's loop has ended" : "";
    }
    m_signals.Close();
    // Comes after the last signal. Refused only by a thread that has ended and calls nobody.
    NxSendCall(GetReactor(), work.close);
    // Before the work's objects go: what is left in the queues refers to them.
    Require(threads->StopAllThreads(nullptr), "stop its threads");
    Require(threads->JoinAllThreads(), "join its threads");
    return error;
}

std::string Program::OpenAll(const NetworkWork& work) {
    INxReactor& reactor = GetReactor();
    std::string error = "the network thread is gone";
    NxSendCall(reactor, [&] {
        error = work.open();
        m_isServing = error.empty();
        CloseWithThread(work);
    });
    const auto onSignal = [this, &work](int signo) { OnSignal(signo, work); };
    const auto onTaken = [this, &work](int signo) { OnTaken(signo, work.stopLimit); };
    if (error.empty() && !m_signals.Open(reactor, onSignal, onTaken)) {
        error = "cannot take signals";
    }
    return error;
}

// Without its loop the program would live on deaf.
void Program::CloseWithThread(const NetworkWork& work) {
    struct End {
        std::function<void()> call;
        ~End() {
            if (call) {
                call();
            }
        }
    };
    thread_local End end;  // of the thread
    end.call = [this, &work] {
        if (m_isServing) {
            m_isNetworkGone = true;
            work.close();
            StopMain();
        }
    };
}

void Program::OnSignal(int signo, const NetworkWork& work) {
    if (signo == SIGHUP) {
        work.onHangUp();
    } else if (m_signal == 0) {
        m_signal = signo;
        work.onStop();
    }
}

void Program::OnTaken(int signo, unsigned stopLimit) {
    if (signo == SIGHUP || std::exchange(m_isStopAsked, true) || stopLimit == 0) {
        return;
    }
    struct sigaction action {};
    // No clean-up: it would wait for what has taken too long.
    action.sa_handler = [](int) { _exit(0); };
    sigaction(SIGALRM, &action, nullptr);
    alarm(stopLimit);
}

}  // namespace examples
