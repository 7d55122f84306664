#include <common/CallEvent.h>
#include <common/Program.h>
#include <nx/reactor/INxReactor.h>
#include <nx/thread/CNxThread.h>
#include <nx/thread/CNxThreadManager.h>

#include <cassert>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>

namespace examples {

int Fail(const std::string& what, int status) {
    std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, what.c_str());
    return status;
}

void Require(NxResult result, const char* what) {
    if (result != NX_OK && result != NX_ERROR_FOUND) {
        std::exit(Fail(std::string("cannot ") + what + " (result " + std::to_string(result) + ")"));
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

bool Program::Init(int argc, char** argv) {
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
    INxReactor& reactor = GetReactor();
    std::string error = "the network thread is gone";
    CallOn(reactor, [&] { error = work.open(); });
    if (error.empty() &&
        !m_signals.Open(reactor, [this, &work](int signo) { OnSignal(signo, work); })) {
        error = "cannot take signals";
    }
    if (error.empty()) {
        threads->GetThread(NX_THREAD_MAIN)->OnThreadRun();
    }
    m_signals.Close();
    // Comes after the last signal. Refused only by a thread that has ended and calls nobody.
    CallOn(reactor, work.close);
    // Before the work's objects go: what is left in the queues refers to them.
    Require(threads->StopAllThreads(nullptr), "stop its threads");
    Require(threads->JoinAllThreads(), "join its threads");
    return error;
}

void Program::OnSignal(int signo, const NetworkWork& work) {
    if (signo == SIGHUP) {
        work.onHangUp();
    } else if (m_signal == 0) {
        m_signal = signo;
        work.onStop();
    }
}

}  // namespace examples
