// reliable_sender: requests over UDP that are sent until they are answered. See --help.
//
// The main thread only waits. The socket and what answers the timers are the network thread's.
#include <common/AddressText.h>
#include <common/CallEvent.h>
#include <common/StopSignals.h>
#include <nx/reactor/INxReactor.h>
#include <nx/thread/CNxThread.h>
#include <nx/thread/CNxThreadManager.h>
#include <reliable_sender/Options.h>
#include <reliable_sender/Peer.h>
#include <reliable_sender/Sender.h>

#include <csignal>
#include <cstdio>
#include <functional>

namespace {

using namespace examples;
using namespace reliable_sender;

constexpr int c_statusFailed = 1;
constexpr int c_statusBadOptions = 2;
constexpr int c_statusSignal = 128;

int Fail(const char* what) {
    std::fprintf(stderr, "reliable_sender: %s\n", what);
    return c_statusFailed;
}

void StopMain() {
    CNxThreadManager::Instance()->GetThread(NX_THREAD_MAIN)->Stop(nullptr);
}

// Runs the main loop until it is stopped, by a signal or otherwise. `open` and `close` are called
// on the network thread. Answers the signal, 0 for none, -1 when `open` failed.
int RunBetween(INxReactor& network, const std::function<bool()>& open,
               const std::function<void()>& close) {
    StopSignals signals;
    bool opened = false;
    CallOn(network, [&] { opened = signals.Open(network, StopMain) && open(); });
    if (opened) {
        CNxThreadManager::Instance()->GetThread(NX_THREAD_MAIN)->OnThreadRun();
    }
    CallOn(network, [&] {
        close();
        signals.Close();
    });
    return opened ? signals.GetSignal() : -1;
}

int RunPeer(const Options& options, INxReactor& network) {
    Peer peer(network, options.lose);
    const CNxInetAddr address(options.host.c_str(), static_cast<unsigned short>(options.listen));
    const auto open = [&] {
        const bool opened = peer.Open(address);
        if (opened) {
            std::printf("listening on %s\n", ToText(peer.GetAddress()).c_str());
            std::fflush(stdout);
        }
        return opened;
    };
    const int signal = RunBetween(network, open, [&peer] { peer.Close(); });
    if (signal == -1) {
        return Fail("cannot listen there");
    }
    std::printf("%llu requests, %llu answered\n",
                static_cast<unsigned long long>(peer.GetReceived()),
                static_cast<unsigned long long>(peer.GetAnswered()));
    return c_statusSignal + signal;
}

int RunSender(const Options& options, INxReactor& network) {
    Sender sender(options, network, StopMain);
    const int signal = RunBetween(
        network, [&sender] { return sender.Open(); }, [&sender] { sender.Close(); });
    if (signal == -1) {
        return Fail("cannot open a socket or start a timer");
    }
    const Progress& progress = sender.GetProgress();
    std::printf("requests   %u of %llu answered, the slowest after %lld ms\n", progress.answered,
                static_cast<unsigned long long>(options.requests),
                static_cast<long long>(progress.longestNs / 1000000));
    std::printf("datagrams  %llu sent, %llu of them again\n",
                static_cast<unsigned long long>(progress.sent),
                static_cast<unsigned long long>(progress.sent - progress.posted));
    if (progress.answered == options.requests) {
        return 0;
    }
    return signal != 0 ? c_statusSignal + signal : c_statusFailed;
}

int RunOnNetworkThread(const Options& options) {
    CNxThreadManager* const threads = CNxThreadManager::Instance();
    // Before there is another thread, for it inherits this.
    threads->DisableSignal(SIGINT);
    threads->DisableSignal(SIGTERM);
    CNxThread* network = nullptr;
    if (threads->InitMainThread(0, nullptr) != NX_OK ||
        threads->CreateNetworkThread(NX_THREAD_NETWORK, CNxThreadManager::CreateNetworkReactor(),
                                     network) != NX_OK) {
        return Fail("cannot start the network thread");
    }
    INxReactor& reactor = *network->GetReactor();
    const int status =
        options.listen != 0 ? RunPeer(options, reactor) : RunSender(options, reactor);
    threads->StopAllThreads(nullptr);
    threads->JoinAllThreads();
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    const std::string error = ParseOptions(argc, argv, options);
    if (!error.empty()) {
        std::fprintf(stderr, "reliable_sender: %s\nTry 'reliable_sender --help'.\n", error.c_str());
        return c_statusBadOptions;
    }
    if (options.help) {
        std::fputs(GetUsage().c_str(), stdout);
        return 0;
    }
    return RunOnNetworkThread(options);
}
