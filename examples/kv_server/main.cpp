// kv_server: an in-memory key-value server. See --help.
//
// Each loop runs the commands of its connections; the keys are shared (Service). The main thread
// takes the signals.
#include <common/CommandLine.h>
#include <common/Trace.h>
#include <kv_server/Service.h>
#include <nx/nx.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <exception>
#include <new>
#include <optional>
#include <string>

namespace {

using namespace examples;
using namespace kv_server;

constexpr const char* c_usage =
    R"(usage: kv_server [options]

An in-memory key-value server that speaks RESP2.

  --bind ADDR               IPv4 or IPv6 address to listen on (127.0.0.1)
  --port P                  port to listen on; 0 takes a free one (6379)
  --tls-port P              port for TLS, too; needs the next two
  --tls-cert FILE           certificate, PEM, with its chain behind it
  --tls-key FILE            its key, PEM
  --unix PATH               unix socket to listen on, too
  --threads N               loops that serve the clients; 0 for one for each processor (1)
  --idle-timeout SECONDS    hang up on a client that was silent this long; 0 for
                            never (300)
  --max-clients N           clients at the same time; more are told so and hung up
                            on (10000)
  --client-memory MIB       memory for the commands and replies of all clients; who holds
                            most is hung up on first when it is not enough (256)
  --shared-trace FILE       trace to this file, too; other processes may do the same
  --help                    print this

The section Server of conf/kv_server.cfg, beside the folder of this program, may hold
the same options, without the dashes; the command line wins. Its section Trace says what
is traced to logs/; SIGHUP has it read again, and the certificate.

Commands: PING ECHO SET (EX PX NX XX) GET DEL EXISTS INCR DECR EXPIRE TTL KEYS DBSIZE
FLUSHALL INFO COMMAND CONFIG-GET QUIT.

SIGINT and SIGTERM end it when every command that has arrived is answered, after
five seconds at most. Exit status: 0 then, 1 when it cannot serve, 2 for bad options.
)";

// For the library, the standard streams, and clients that are being refused.
constexpr unsigned c_otherDescriptors = 128;
constexpr std::size_t c_refusedAtOnce = 64;

// What is under way has a little less; the rest is for what cannot be interrupted: a command deep
// in its work, millions of keys being freed.
constexpr CNxTimeValue c_stopLimit(4, 500000);
constexpr unsigned c_stopSeconds = 5;

constexpr std::uint64_t c_noPort = 65536;

struct Options {
    std::string bind = "127.0.0.1";
    std::uint64_t port = 6379;
    std::uint64_t tlsPort = c_noPort;
    CNxTlsOptions tls;
    std::string unixPath;
    std::uint64_t threads = 1;
    std::uint64_t idleTimeout = 300;
    std::uint64_t maxClients = 10000;
    std::uint64_t clientMemory = 256;
    std::string sharedTrace;
};

CommandLine Describe(Options& options) {
    CommandLine line{};
    line.usage = c_usage;
    line.texts = {
        {"--bind", &options.bind},
        {"--tls-cert", &options.tls.certificateFile},
        {"--tls-key", &options.tls.keyFile},
        {"--unix", &options.unixPath},
        {"--shared-trace", &options.sharedTrace},
    };
    line.numbers = {
        {"--port", &options.port, 0, 65535},
        {"--tls-port", &options.tlsPort, 0, 65535},
        {"--threads", &options.threads, 0, 1024},
        {"--idle-timeout", &options.idleTimeout, 0, 31536000},
        {"--max-clients", &options.maxClients, 1, 1000000},
        {"--client-memory", &options.clientMemory, 1, 1048576},
    };
    return line;
}

// The configuration file comes first, and the arguments win. Returns the status to end with, or
// nothing when the program is to go on.
std::optional<int> ReadOptions(Options& options, int argc, char** argv) {
    CommandLine line = Describe(options);
    if (const auto status = line.Read(argc, argv)) {
        return status;
    }
    trace_setting_init();
    std::string error = line.ReadSection("Server");
    error = error.empty() ? line.Parse(argc, argv) : error;
    const bool hasTls = options.tlsPort != c_noPort;
    if (hasTls && (options.tls.certificateFile.empty() || options.tls.keyFile.empty())) {
        error = error.empty() ? "--tls-port needs --tls-cert and --tls-key" : error;
    }
    error = error.empty() ? CheckAddress("bind", options.bind) : error;
    return error.empty() ? std::nullopt : std::optional(Fail(WithHint(error), c_statusBadOptions));
}

CNxServerOptions GetServerOptions(const Options& options) {
    CNxServerOptions server;
    server.loops.loops = static_cast<unsigned>(options.threads);
    server.loops.name = "kv";
    server.descriptors = static_cast<unsigned>(options.maxClients) + c_otherDescriptors;
    server.stopLimit = c_stopLimit;
    return server;
}

CNxListenOptions GetListenOptions(const Options& options) {
    CNxListenOptions listen;
    listen.connection.idleTimeout = CNxTimeValue(static_cast<long>(options.idleTimeout));
    listen.connection.stallTimeout = listen.connection.idleTimeout;
    listen.connection.highWater = c_maxWaiting;
    listen.connection.lowWater = c_maxWaiting / 4;
    // Who holds most of the memory for clients is dropped instead.
    listen.connection.maxUnsent = 0;
    listen.connection.maxUnread = c_maxCommand + c_maxInline;
    listen.acceptor.maxConnections = options.maxClients + c_refusedAtOnce;
    return listen;
}

void Open(CNxServer& server, Service& service, const Options& options) {
    // Not on the loop of the main thread, which is to hear of signals whatever the store does.
    if (service.Start(*server.GetGroup().GetReactor(0)) != NX_OK) {
        server.Fail("cannot start its timers");
    }
    const auto makeSink = [&service] { return service.MakeSink(); };
    CNxListenOptions listen = GetListenOptions(options);
    if (server.Listen(ToEndpoint(options.bind, options.port), makeSink, listen) == NX_OK) {
        service.GetStats().port = server.GetGroup().GetEndpoint().GetPort();
    }
    if (!options.unixPath.empty()) {
        server.Listen("unix:" + options.unixPath, makeSink, listen);
    }
    if (options.tlsPort != c_noPort) {
        listen.connection.tls = server.MakeTls(options.tls);
        server.Listen(ToEndpoint(options.bind, options.tlsPort), makeSink, listen);
    }
}

void Announce(const CNxReactorGroup& group) {
    for (size_t i = 0; i < group.GetListeners(); ++i) {
        const std::string endpoint = group.GetEndpoint(i).GetText();
        std::printf("kv_server: listening on %s\n", endpoint.c_str());
        Trace(NX_TRACE_INFO, "listening on ", endpoint.c_str());
    }
    std::fflush(stdout);
}

void OnReload() {
    Trace(NX_TRACE_INFO, "trace switches read again");
}

void OnStop(const Stats& stats) {
    Trace(NX_TRACE_INFO, "stopping; clients ", stats.connected.load());
    // No clean-up: it would wait for what has taken too long.
    std::signal(SIGALRM, [](int) { _exit(0); });
    alarm(c_stopSeconds);
}

// From listening to the end that a signal brings.
int Serve(const Options& options, int argc, char** argv) {
    CNxServer server(argc, argv, GetServerOptions(options));
    if (server.HasFailed()) {
        return server.Run();
    }
    if (!options.sharedTrace.empty()) {
        ShareTrace(options.sharedTrace);
    }
    Service service(options.maxClients, options.clientMemory << 20);
    const Stats& stats = service.GetStats();
    server.SetOnReload(OnReload);
    server.SetOnStop([&stats] { OnStop(stats); });
    try {
        Open(server, service, options);
        if (!server.HasFailed()) {
            Announce(server.GetGroup());
        }
    } catch (const std::bad_alloc&) {
        // Clients may be served already: the loops must end before the service.
        server.Fail("out of memory");
    }
    const int status = server.Run();
    Trace(NX_TRACE_INFO, "stopped; clients accepted ", stats.accepted.load(), ", refused ",
          stats.refused.load());
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    // Standard output is the program's own.
    CNxOwnLines::Send(CNxOwnLines::TO_TRACE);
    try {
        Options options;
        const auto status = ReadOptions(options, argc, argv);
        return status ? *status : Serve(options, argc, argv);
    } catch (const std::exception& error) {
        return Fail(error.what());
    }
}
