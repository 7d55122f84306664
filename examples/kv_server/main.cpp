// kv_server: an in-memory key-value server. See --help.
//
// The network thread has the sockets, the store's thread has the keys; batches of commands and
// replies travel between them as events. The main thread only waits for the end.
#include <common/CallEvent.h>
#include <common/Descriptors.h>
#include <common/StopSignals.h>
#include <common/Trace.h>
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

int Fail(const std::string& what, int status = c_statusFailed) {
    examples::Trace(examples::c_traceError, what.c_str());
    std::fprintf(stderr, "kv_server: %s\n", what.c_str());
    return status;
}

void ReadTraceSwitches() {
    refresh_trace_config();
    examples::Trace(examples::c_traceInfo, "trace switches read again");
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
        if (error.empty() && !signals.Open(
                                 reactor, [&server] { server.Stop(); }, ReadTraceSwitches)) {
            error = "cannot take signals";
        }
    });
    if (error.empty()) {
        std::printf("kv_server: listening on %s\n", address.c_str());
        examples::Trace(examples::c_traceInfo, "listening on ", address.c_str(), ", reactor ",
                        options.reactor.c_str());
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
    examples::Trace(examples::c_traceInfo, "stopped; clients accepted ", stats.accepted.load(),
                    ", refused ", stats.refused.load());
    return error.empty() ? 0 : Fail(error);
}

// The caller owns it.
INxReactor* MakeReactor(const std::string& name) {
    if (name == "select") {
        return new CNxReactorSelect;
    }
    return name == "rtsig" ? new CNxReactorRealTimeSignal
                           : CNxThreadManager::CreateNetworkReactor();
}

int RunThreads(const Options& options) {
    CNxThreadManager* const threads = CNxThreadManager::Instance();
    CNxThread* network = nullptr;
    CNxThread* store = nullptr;
    if (threads->CreateNetworkThread(NX_THREAD_NETWORK, MakeReactor(options.reactor), network) !=
            NX_OK ||
        threads->CreateUserTaskThread(store, CNxThreadManager::FLAG_JOINABLE, 1) != NX_OK) {
        return Fail("cannot start its threads");
    }
    return Serve(options, *network, *store);
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    std::string error = ParseOptions(argc, argv, options);
    if (error.empty() && options.help) {
        std::fputs(GetUsage().c_str(), stdout);
        return 0;
    }
    CNxThreadManager* const threads = CNxThreadManager::Instance();
    // Before there is another thread, for it inherits this.
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        threads->DisableSignal(signal);
    }
    if (error.empty() && threads->InitMainThread(argc, argv) != NX_OK) {
        return Fail("cannot start");
    }
    options = Options();
    error = error.empty() ? ReadConfiguration(options) : error;
    error = error.empty() ? ParseOptions(argc, argv, options) : error;
    if (!error.empty()) {
        return Fail(error + "\nTry 'kv_server --help'.", c_statusBadOptions);
    }
    if (!options.sharedTrace.empty()) {
        examples::ShareTrace(options.sharedTrace);
    }
    if (!examples::AllowDescriptors(options.maxClients + c_otherDescriptors)) {
        return Fail("the limit of open files (ulimit -n) is too low for max-clients " +
                    std::to_string(options.maxClients));
    }
    return RunThreads(options);
}
