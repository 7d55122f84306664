// kv_server: an in-memory key-value server. See --help.
//
// The network thread has the sockets, the store's thread has the keys; batches of commands and
// replies travel between them as events. The main thread only waits for the end.
#include <common/CommandLine.h>
#include <common/Program.h>
#include <common/Trace.h>
#include <kv_server/Options.h>
#include <kv_server/Server.h>
#include <nx/event/NxCall.h>
#include <nx/nx.h>

#include <cstdio>
#include <string>

namespace {

using namespace kv_server;
using examples::CommandLine;

constexpr const char* c_usage =
    "usage: kv_server [options]\n"
    "\n"
    "An in-memory key-value server that speaks RESP2.\n"
    "\n"
    "  --bind ADDR               IPv4 or IPv6 address to listen on (127.0.0.1)\n"
    "  --port P                  port to listen on; 0 takes a free one (6379)\n"
    "  --idle-timeout SECONDS    hang up on a client that was silent this long; 0 for\n"
    "                            never (300)\n"
    "  --max-clients N           clients at the same time; more are told so and hung up\n"
    "                            on (10000)\n"
    "  --client-memory MIB       memory for the commands and replies of all clients; who holds\n"
    "                            most is hung up on first when it is not enough (256)\n"
    "  --reactor NAME            epoll, select (at most 1024 descriptors) or rtsig (epoll)\n"
    "  --shared-trace FILE       trace to this file, too; other processes may do the same\n"
    "  --help                    print this\n"
    "\n"
    "The section Server of conf/kv_server.cfg, beside the folder of this program, may hold\n"
    "the same options, without the dashes; the command line wins. Its section Trace says "
    "what\n"
    "is traced to logs/; SIGHUP has it read again.\n"
    "\n"
    "Commands: PING ECHO SET (EX PX NX XX) GET DEL EXISTS INCR DECR EXPIRE TTL KEYS DBSIZE\n"
    "FLUSHALL INFO COMMAND CONFIG-GET QUIT.\n"
    "\n"
    "SIGINT and SIGTERM end it when every command that has arrived is answered, after\n"
    "five seconds at most. Exit status: 0 then, 1 when it cannot serve, 2 for bad "
    "options.\n";

// For the library, the standard streams, and clients that are being refused.
constexpr rlim_t c_otherDescriptors = 128;

// Seconds. The server itself takes less; this is for what cannot be interrupted, the store deep in
// its work or freeing millions of keys.
constexpr unsigned c_stopLimit = 5;

int Fail(const std::string& what, int status = examples::c_statusFailed) {
    examples::Trace(examples::c_traceError, what.c_str());
    return examples::Fail(what, status);
}

CommandLine Describe(Options& options) {
    CommandLine line{};
    line.usage = c_usage;
    line.texts = {
        {"--bind", &options.bind},
        {"--reactor", &options.reactor},
        {"--shared-trace", &options.sharedTrace},
    };
    line.numbers = {
        {"--port", &options.port, 0, 65535},
        {"--idle-timeout", &options.idleTimeout, 0, 31536000},
        {"--max-clients", &options.maxClients, 1, 1000000},
        {"--client-memory", &options.clientMemory, 1, 1048576},
    };
    line.check = [&options] {
        const std::string& reactor = options.reactor;
        std::string error = examples::CheckAddress("bind", options.bind);
        if (error.empty() && reactor != "epoll" && reactor != "select" && reactor != "rtsig") {
            error = "reactor takes epoll, select or rtsig, not '" + reactor + "'";
        }
        return error;
    };
    return line;
}

// The caller owns it.
INxReactor* MakeReactor(const std::string& name) {
    if (name == "select") {
        return new CNxReactorSelect;
    }
    return name == "rtsig" ? new CNxReactorRealTimeSignal
                           : CNxThreadManager::CreateNetworkReactor();
}

void ReadTraceSwitches() {
    refresh_trace_config();
    examples::Trace(examples::c_traceInfo, "trace switches read again");
}

std::string Listen(Server& server, const Options& options) {
    std::string error = server.Open();
    if (error.empty()) {
        const std::string address = server.GetAddressText();
        std::printf("kv_server: listening on %s\n", address.c_str());
        examples::Trace(examples::c_traceInfo, "listening on ", address.c_str(), ", reactor ",
                        options.reactor.c_str());
        std::fflush(stdout);
    }
    return error;
}

// From listening to the end that a signal brings.
int Serve(const Options& options, examples::Program& program, CNxThread& store) {
    INxEventQueue& storeQueue = *store.GetEventQueue();
    Stats stats;
    StoreService service(*store.GetTimerQueue(), stats);
    Server server(options, program.GetReactor(), storeQueue, service, stats,
                  [] { CNxSignalStop::Instance()->Launch(SIGTERM); });
    examples::NetworkWork work;
    work.open = [&] { return Listen(server, options); };
    work.close = [&] {
        server.Close();
        NxSendCall(storeQueue, [&service] { service.Close(); });
    };
    work.onStop = [&server] { server.Stop(); };
    work.onHangUp = ReadTraceSwitches;
    work.stopLimit = c_stopLimit;
    const std::string error = program.Run(work);
    examples::Trace(examples::c_traceInfo, "stopped; clients accepted ", stats.accepted.load(),
                    ", refused ", stats.refused.load());
    return error.empty() ? 0 : Fail(error);
}

}  // namespace

int main(int argc, char** argv) {
    examples::Program program({SIGINT, SIGTERM, SIGHUP});
    Options options;
    CommandLine line = Describe(options);
    std::string error = line.Parse(argc, argv);
    if (line.help) {
        std::fputs(line.usage, stdout);
        return 0;
    }
    if (error.empty() && !program.Init(argc, argv)) {
        return Fail("cannot start");
    }
    if (error.empty()) {
        // Now that the configuration file is known: it comes first, and the arguments win.
        options = Options();
        error = line.ReadSection("Server");
        error = error.empty() ? line.Parse(argc, argv) : error;
    }
    if (!error.empty()) {
        return Fail(examples::WithHint(error), examples::c_statusBadOptions);
    }
    if (!options.sharedTrace.empty()) {
        examples::ShareTrace(options.sharedTrace);
    }
    if (!examples::AllowDescriptors(options.maxClients + c_otherDescriptors)) {
        return Fail("the limit of open files (ulimit -n) is too low for max-clients " +
                    std::to_string(options.maxClients));
    }
    CNxThread* store = nullptr;
    if (!program.StartNetwork(MakeReactor(options.reactor)) ||
        CNxThreadManager::Instance()->CreateUserTaskThread(store, CNxThreadManager::FLAG_JOINABLE,
                                                           1) != NX_OK) {
        return Fail("cannot start its threads");
    }
    return Serve(options, program, *store);
}
