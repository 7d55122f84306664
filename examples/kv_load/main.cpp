// kv_load: loads a key-value server and checks every reply. See --help.
#include <common/CommandLine.h>
#include <kv_load/LoadClient.h>
#include <nx/nx.h>

#include <exception>
#include <new>
#include <string>

namespace {

using namespace examples;
using namespace kv_load;

constexpr const char* c_usage =
    R"(usage: kv_load --port P [options]

Loads a key-value server that speaks RESP2 and checks every byte that it answers.

  --host HOST               name or address of the server (127.0.0.1)
  --port P                  its port
  --connections N           connections at the same time (50)
  --pipeline D              requests under way on each connection (16)
  --value-size B            bytes of a value (32)
  --requests N              requests in all (100000)
  --keys K                  keys that are written and read, shared out among the
                            connections (10000)
  --connect-timeout SECONDS a connect may take this long (10)
  --stall-timeout SECONDS   the server may be silent this long while it owes a
                            reply (30)
  --tls                     speak TLS, and verify the server
  --tls-ca FILE             whom to trust, PEM (what the system trusts)
  --help                    print this

About half of the requests are SET, half GET; a few are INCR and PING. Values are
arbitrary bytes. The keys are named load:RUN:..., RUN being different in every run,
so that several runs can share a server; they stay on the server.

A connection that fails or gets a wrong reply is reported and given up; the others
go on. Exit status: 0 when every request got its right reply, 1 when not, 2 for bad
options, 130 and 143 when ended by SIGINT and SIGTERM.
)";

CommandLine Describe(Options& options) {
    constexpr std::uint64_t c_day = 86400;
    CommandLine line{};
    line.usage = c_usage;
    line.flags = {{"--tls", &options.isTls}};
    line.texts = {{"--host", &options.host}, {"--tls-ca", &options.tls.caFile}};
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
        const bool hasKeys = options.keys >= options.connections;
        return hasKeys ? ""
                       : "--keys must be at least --connections, for each connection has keys of "
                         "its own";
    };
    return line;
}

// From the first connect to the last close. Ends when the client has nothing left to do or a signal
// comes.
int RunLoad(const Options& options, int argc, char** argv) {
    CNxServerOptions serverOptions;
    // The rest is for the library and the standard streams.
    serverOptions.descriptors = static_cast<unsigned>(options.connections) + 64;
    serverOptions.stopLimit = CNxTimeValue::s_tvZero();
    CNxServer server(argc, argv, serverOptions);
    CNxAutoPtr<CNxTlsContext> tls;
    std::string error;
    if (options.isTls && CNxTlsContext::CreateClient(tls, options.tls, error) != NX_OK) {
        server.Fail(error);
    }
    if (server.HasFailed()) {
        return server.Run();
    }
    LoadClient client(options, tls, server);
    server.SetOnStop([&client] { client.Close(); });
    return server.Run() != 0 ? c_statusFailed : client.Report(server.GetSignal());
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
