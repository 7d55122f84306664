#include <common/CommandLine.h>
#include <nx/net/CNxInetAddr.h>
#include <reliable_sender/Options.h>

namespace reliable_sender {

namespace {

// What a precise timer can wait for, and what fits a datagram.
constexpr std::uint64_t c_maxTimeout = 7000;
constexpr std::uint64_t c_maxSize = 60000;

std::string CheckTogether(const Options& options) {
    if ((options.port == 0) == (options.listen == 0)) {
        return "one of --port and --listen is needed";
    }
    if (!CNxInetAddr::IsIpAddress(CNxString(options.host.c_str()))) {
        return "--host takes an IPv4 or IPv6 address, not '" + options.host + "'";
    }
    return {};
}

}  // namespace

std::string ParseOptions(int argc, const char* const* argv, Options& options) {
    examples::CommandLine line;
    line.texts = {{"--host", &options.host}};
    line.numbers = {
        {"--port", &options.port, 1, 65535},
        {"--requests", &options.requests, 1, 10000},
        {"--interval", &options.interval, 1, 60000},
        {"--size", &options.size, 0, c_maxSize},
        {"--timeout", &options.timeout, 1, c_maxTimeout},
        {"--listen", &options.listen, 1, 65535},
        {"--lose", &options.lose, 0, 100},
    };
    std::string error = line.Parse(argc, argv);
    options.help = line.help;
    return error.empty() && !options.help ? CheckTogether(options) : error;
}

std::string GetUsage() {
    return "usage: reliable_sender --port P [options]\n"
           "       reliable_sender --listen P [options]\n"
           "\n"
           "Sends requests over UDP, each again every 2 seconds until the peer has answered it.\n"
           "With --listen it is the peer.\n"
           "\n"
           "  --host ADDR        IPv4 or IPv6 address of the peer (127.0.0.1)\n"
           "  --port P           its port\n"
           "  --requests N       requests to send (10)\n"
           "  --interval MS      a new one every so many milliseconds (100)\n"
           "  --size B           bytes that each carries (32)\n"
           "  --timeout SECONDS  give up what is unanswered then (never)\n"
           "  --listen P         answer requests on this port until a signal comes\n"
           "  --lose PERCENT     as if so many of them had been lost on the way (0)\n"
           "  --help             print this\n"
           "\n"
           "A request is a datagram \"REQ number bytes\", its answer \"ACK number\"; so netcat "
           "can\n"
           "be the peer as well. Exit status: 0 when every request was answered, 1 when not, 2 "
           "for\n"
           "bad options, 130 and 143 when ended by SIGINT and SIGTERM.\n";
}

}  // namespace reliable_sender
