// kv_load: loads a key-value server and checks every reply. See --help.
//
// The main thread only waits. All sockets and timers are the loop's; the main thread prints the
// summary when it has ended.
#include <common/Clock.h>
#include <common/CommandLine.h>
#include <kv_load/LoadClient.h>
#include <nx/nx.h>

#include <cstdio>
#include <exception>
#include <new>
#include <string>

namespace {

using namespace examples;
using namespace kv_load;

constexpr const char* c_usage =
    "usage: kv_load --port P [options]\n"
    "\n"
    "Loads a key-value server that speaks RESP2 and checks every byte that it answers.\n"
    "\n"
    "  --host HOST               name or address of the server (127.0.0.1)\n"
    "  --port P                  its port\n"
    "  --connections N           connections at the same time (50)\n"
    "  --pipeline D              requests under way on each connection (16)\n"
    "  --value-size B            bytes of a value (32)\n"
    "  --requests N              requests in all (100000)\n"
    "  --keys K                  keys that are written and read, shared out among the\n"
    "                            connections (10000)\n"
    "  --connect-timeout SECONDS a connect may take this long (10)\n"
    "  --stall-timeout SECONDS   the server may be silent this long while it owes a\n"
    "                            reply (30)\n"
    "  --tls                     speak TLS, and verify the server\n"
    "  --tls-ca FILE             whom to trust, PEM (what the system trusts)\n"
    "  --help                    print this\n"
    "\n"
    "About half of the requests are SET, half GET; a few are INCR and PING. Values are\n"
    "arbitrary bytes. The keys are named load:RUN:..., RUN being different in every run,\n"
    "so that several runs can share a server; they stay on the server.\n"
    "\n"
    "A connection that fails or gets a wrong reply is reported and given up; the others\n"
    "go on. Exit status: 0 when every request got its right reply, 1 when not, 2 for bad\n"
    "options, 130 and 143 when ended by SIGINT and SIGTERM.\n";

CommandLine Describe(Options& options) {
    constexpr std::uint64_t c_day = 86400;
    CommandLine line{};
    line.usage = c_usage;
    line.flags = {{"--tls", &options.isTls}};
    line.texts = {{"--host", &options.host}, {"--tls-ca", &options.caFile}};
    line.numbers = {
        {"--port", &options.port, 1, 65535},
        {"--connections", &options.connections, 1, 60000},
        {"--pipeline", &options.pipeline, 1, 65536},
        {"--value-size", &options.valueSize, 0, 16UL << 20},
        {"--requests", &options.requests, 1, 1000000000000UL},
        {"--keys", &options.keys, 1, 99999999},
        {"--connect-timeout", &options.connectTimeout, 1, c_day},
        {"--stall-timeout", &options.stallTimeout, 1, c_day},
    };
    line.check = [&options]() -> std::string {
        if (options.port == 0) {
            return "--port is missing";
        }
        if (options.keys < options.connections) {
            return "--keys must be at least --connections, for each connection has keys of its own";
        }
        return {};
    };
    return line;
}

double ToMs(std::uint64_t ns) {
    return static_cast<double>(ns) / 1e6;
}

// 0 if every request got its right reply; 1 if not, also when a signal ended the run after a
// failure; else 128 plus the signal.
int GetExitStatus(const Options& options, const LoadProgress& progress, int signal) {
    if (progress.failed != 0) {
        return c_statusFailed;
    }
    if (progress.latency.GetCount() == options.requests) {
        return 0;
    }
    return signal != 0 ? 128 + signal : c_statusFailed;
}

std::string GetVerdict(const Options& options, const LoadProgress& progress, int signal) {
    const unsigned long long failed = progress.failed;
    if (failed != 0) {
        return "FAILED: " + std::to_string(failed) + " of " + std::to_string(options.connections) +
               " connections given up";
    }
    if (GetExitStatus(options, progress, signal) != 0) {
        return "interrupted; every reply until then was right";
    }
    return "every reply was right";
}

// What was achieved. `signal` is the one that ended the run, or 0.
void PrintSummary(const Options& options, const LoadProgress& progress, int signal) {
    const LatencyHistogram& latency = progress.latency;
    const unsigned long long count = latency.GetCount();
    const std::int64_t duration =
        progress.startedAt != 0 ? progress.endedAt - progress.startedAt : 0;
    const double seconds =
        static_cast<double>(duration) / static_cast<double>(examples::c_nsPerSecond);
    std::printf("requests    %llu of %llu\n", count,
                static_cast<unsigned long long>(options.requests));
    std::printf("connections %llu, pipeline %llu, value size %llu\n",
                static_cast<unsigned long long>(options.connections),
                static_cast<unsigned long long>(options.pipeline),
                static_cast<unsigned long long>(options.valueSize));
    std::printf("seconds     %.3f\n", seconds);
    std::printf("throughput  %.0f requests/s\n",
                seconds > 0 ? static_cast<double>(count) / seconds : 0.0);
    std::printf("latency ms  p50 %.3f  p99 %.3f  p99.9 %.3f  max %.3f\n",
                ToMs(latency.GetQuantile(500)), ToMs(latency.GetQuantile(990)),
                ToMs(latency.GetQuantile(999)), ToMs(latency.GetMax()));
    std::printf("result      %s\n", GetVerdict(options, progress, signal).c_str());
}

// Null without TLS, and when that cannot be had: the server then says why.
CNxAutoPtr<CNxTlsContext> MakeTls(const Options& options, CNxServer& server) {
    CNxAutoPtr<CNxTlsContext> tls;
    CNxTlsOptions wanted;
    wanted.caFile = options.caFile;
    std::string error;
    if (options.isTls && CNxTlsContext::CreateClient(tls, wanted, error) != NX_OK) {
        server.Fail(error);
    }
    return tls;
}

// From the first connect to the last close. Ends when the client has nothing left to do or a signal
// comes.
int RunLoad(const Options& options, int argc, char** argv) {
    CNxServerOptions serverOptions;
    // The rest is for the library and the standard streams.
    serverOptions.descriptors = static_cast<unsigned>(options.connections) + 64;
    serverOptions.loops.name = "load";
    serverOptions.stopLimit = CNxTimeValue::s_tvZero();
    CNxServer server(argc, argv, serverOptions);
    CNxAutoPtr<CNxTlsContext> tls = MakeTls(options, server);
    if (server.HasFailed()) {
        return server.Run();
    }
    INxReactor& loop = *server.GetGroup().GetReactor(0);
    LoadClient client(options, std::move(tls), loop, [&server] { server.Stop(); });
    server.SetOnStop([&] { NxSendCall(loop, [&client] { client.Close(); }); });
    const auto started = NxSendCall(loop, [&client] { return client.Start(); });
    if (!started || !started.GetValue()) {
        server.Fail("cannot watch its connections");
    }
    const int status = server.Run();
    if (status != 0) {
        return status;
    }
    PrintSummary(options, client.GetProgress(), server.GetSignal());
    return GetExitStatus(options, client.GetProgress(), server.GetSignal());
}

}  // namespace

int main(int argc, char** argv) {
    // Standard output is the program's own.
    CNxOwnLines::Send(CNxOwnLines::TO_TRACE);
    try {
        Options options;
        const auto status = Describe(options).Read(argc, argv);
        return status ? *status : RunLoad(options, argc, argv);
    } catch (const std::bad_alloc&) {
        return Fail("not enough memory for that many connections, keys or bytes of values");
    } catch (const std::exception& error) {
        return Fail(error.what());
    }
}
