#include <common/CommandLine.h>
#include <kv_load/Options.h>
#include <nx/net/CNxInetAddr.h>

namespace kv_load {

namespace {

constexpr std::uint64_t c_day = 86400;

std::string CheckTogether(const Options& options) {
    if (options.port == 0) {
        return "--port is missing";
    }
    if (!CNxInetAddr::IsIpAddress(CNxString(options.host.c_str()))) {
        return "--host takes an IPv4 or IPv6 address, not '" + options.host + "'";
    }
    if (options.keys < options.connections) {
        return "--keys must be at least --connections, for each connection has keys of its own";
    }
    return {};
}

}  // namespace

std::string ParseOptions(int argc, const char* const* argv, Options& options) {
    examples::CommandLine line;
    line.texts = {{"--host", &options.host}};
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
    std::string error = line.Parse(argc, argv);
    options.help = line.help;
    return error.empty() && !options.help ? CheckTogether(options) : error;
}

std::string GetUsage() {
    return "usage: kv_load --port P [options]\n"
           "\n"
           "Loads a key-value server that speaks RESP2 and checks every byte that it answers.\n"
           "\n"
           "  --host ADDR               IPv4 or IPv6 address of the server (127.0.0.1)\n"
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
           "  --help                    print this\n"
           "\n"
           "About half of the requests are SET, half GET; a few are INCR and PING. Values are\n"
           "arbitrary bytes. The keys are named load:RUN:..., RUN being different in every run,\n"
           "so that several runs can share a server; they stay on the server.\n"
           "\n"
           "A connection that fails or gets a wrong reply is reported and given up; the others\n"
           "go on. Exit status: 0 when every request got its right reply, 1 when not, 2 for bad\n"
           "options, 130 and 143 when ended by SIGINT and SIGTERM.\n";
}

}  // namespace kv_load
