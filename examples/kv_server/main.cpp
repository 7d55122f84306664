// kv_server: an in-memory key-value server. See --help.
//
// The network thread has the sockets, the store's thread has the keys; batches of commands and
// replies travel between them as events. The main thread only waits for the end.
#include <common/CallEvent.h>
#include <common/Descriptors.h>
#include <common/StopSignals.h>
#include <kv_server/Options.h>
#include <kv_server/Server.h>
#include <kv_server/StoreService.h>
#include <nx/nx.h>

#include <csignal>
#include <cstdio>
#include <string>

namespace {

using namespace kv_server;
using examples::CallOn;

constexpr int c_statusFailed = 1;
constexpr int c_statusBadOptions = 2;
// For the library, the standard streams, and clients that are being refused.
constexpr rlim_t c_otherDescriptors = 128;

int Fail(const std::string& what) {
    std::fprintf(stderr, "kv_server: %s\n", what.c_str());
    return c_statusFailed;
}

// From listening to the end that a signal brings.
int Serve(const Options& options, CNxThread& network, CNxThread& store) {
    INxReactor& reactor = *network.GetReactor();
    INxEventQueue& storeQueue = *store.GetEventQueue();
    Stats stats;
    StoreService service(*store.GetTimerQueue(), stats);
    Server server(options, reactor, storeQueue, service, stats,
                  [] { CNxSignalStop::Instance()->Launch(SIGTERM); });
    examples::StopSignals signals;
    std::string error;
    std::string address;
    CallOn(reactor, [&] {
        error = server.Open();
        address = server.GetAddressText();
        if (error.empty() && !signals.Open(reactor, [&server] { server.Stop(); })) {
            error = "cannot take signals";
        }
    });
    if (error.empty()) {
        std::printf("kv_server: listening on %s\n", address.c_str());
        std::fflush(stdout);
        CNxThreadManager::Instance()->GetThread(NX_THREAD_MAIN)->OnThreadRun();
    }
    CallOn(reactor, [&] {
        signals.Close();
        server.Close();
    });
    CallOn(storeQueue, [&] { service.Close(); });
    // Before the objects go: what is left in the queues refers to them.
    CNxThreadManager::Instance()->StopAllThreads(nullptr);
    CNxThreadManager::Instance()->JoinAllThreads();
    return error.empty() ? 0 : Fail(error);
}

int RunThreads(const Options& options) {
    CNxThreadManager* const threads = CNxThreadManager::Instance();
    // Before there is another thread, for it inherits this.
    threads->DisableSignal(SIGINT);
    threads->DisableSignal(SIGTERM);
    CNxThread* network = nullptr;
    CNxThread* store = nullptr;
    if (threads->InitMainThread(0, nullptr) != NX_OK ||
        threads->CreateNetworkThread(NX_THREAD_NETWORK, CNxThreadManager::CreateNetworkReactor(),
                                     network) != NX_OK ||
        threads->CreateUserTaskThread(store, CNxThreadManager::FLAG_JOINABLE, 1) != NX_OK) {
        return Fail("cannot start its threads");
    }
    return Serve(options, *network, *store);
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    const std::string error = ParseOptions(argc, argv, options);
    if (!error.empty()) {
        std::fprintf(stderr, "kv_server: %s\nTry 'kv_server --help'.\n", error.c_str());
        return c_statusBadOptions;
    }
    if (options.help) {
        std::fputs(GetUsage().c_str(), stdout);
        return 0;
    }
    if (!examples::AllowDescriptors(options.maxClients + c_otherDescriptors)) {
        return Fail("the limit of open files (ulimit -n) is too low for --max-clients " +
                    std::to_string(options.maxClients));
    }
    return RunThreads(options);
}
