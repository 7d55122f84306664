// kv_load: loads a key-value server and checks every reply. See --help.
//
// The main thread only waits. All sockets, timers and signals are the network thread's; the main
// thread sends it what is to be started and closed, and prints the summary when it has ended.
#include <common/CallEvent.h>
#include <common/Descriptors.h>
#include <common/StopSignals.h>
#include <kv_load/LoadClient.h>
#include <kv_load/Options.h>
#include <kv_load/Summary.h>
#include <nx/reactor/INxReactor.h>
#include <nx/thread/CNxThread.h>
#include <nx/thread/CNxThreadManager.h>

#include <csignal>
#include <cstdio>
#include <new>

namespace {

using namespace examples;
using namespace kv_load;

constexpr int c_statusFailed = 1;
constexpr int c_statusBadOptions = 2;

int Fail(const char* what) {
    std::fprintf(stderr, "kv_load: %s\n", what);
    return c_statusFailed;
}

// Runs the load from the first connect to the last close. The main loop ends when the client has
// nothing left to do or a signal comes.
int RunLoad(const Options& options, INxReactor& network) {
    CNxThread* const mainThread = CNxThreadManager::Instance()->GetThread(NX_THREAD_MAIN);
    const auto stopMain = [mainThread] { mainThread->Stop(nullptr); };
    LoadClient client(options, network, stopMain);
    StopSignals signals;
    bool opened = false;
    CallOn(network, [&] {
        opened = signals.Open(network, stopMain);
        if (opened) {
            client.Start();
        }
    });
    if (opened) {
        mainThread->OnThreadRun();
    }
    CallOn(network, [&] {
        client.Close();
        signals.Close();
    });
    if (!opened) {
        return Fail("cannot take signals");
    }
    PrintSummary(options, client.GetProgress(), signals.GetSignal());
    return GetExitStatus(options, client.GetProgress(), signals.GetSignal());
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
    int status = c_statusFailed;
    try {
        status = RunLoad(options, *network->GetReactor());
    } catch (const std::bad_alloc&) {
        Fail("not enough memory for that many connections, keys or bytes of values");
    }
    threads->StopAllThreads(nullptr);
    threads->JoinAllThreads();
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    const std::string error = ParseOptions(argc, argv, options);
    if (!error.empty()) {
        std::fprintf(stderr, "kv_load: %s\nTry 'kv_load --help'.\n", error.c_str());
        return c_statusBadOptions;
    }
    if (options.help) {
        std::fputs(GetUsage().c_str(), stdout);
        return 0;
    }
    // The rest is for the library and the standard streams.
    if (!AllowDescriptors(options.connections + 64)) {
        return Fail("the limit of open files (ulimit -n) is too low for that many connections");
    }
    return RunOnNetworkThread(options);
}
