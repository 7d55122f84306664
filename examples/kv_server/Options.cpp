#include <common/CommandLine.h>
#include <kv_server/Options.h>
#include <nx/net/CNxInetAddr.h>

namespace kv_server {

namespace {

examples::CommandLine MakeCommandLine(Options& options) {
    examples::CommandLine line;
    line.texts = {
        {"--bind", &options.bind},
        {"--reactor", &options.reactor},
        {"--shared-trace", &options.sharedTrace},
    };
    line.numbers = {
        {"--port", &options.port, 0, 65535},
        {"--idle-timeout", &options.idleTimeout, 0, 31536000},
        {"--max-clients", &options.maxClients, 1, 1000000},
    };
    return line;
}

std::string CheckTexts(const Options& options) {
    if (!CNxInetAddr::IsIpAddress(CNxString(options.bind.c_str()))) {
        return "bind takes an IPv4 or IPv6 address, not '" + options.bind + "'";
    }
    if (options.reactor != "epoll" && options.reactor != "select" && options.reactor != "rtsig") {
        return "reactor takes epoll, select or rtsig, not '" + options.reactor + "'";
    }
    return {};
}

}  // namespace

std::string ReadConfiguration(Options& options) {
    const std::string error = MakeCommandLine(options).ReadSection("Server");
    return error.empty() ? CheckTexts(options) : error;
}

std::string ParseOptions(int argc, const char* const* argv, Options& options) {
    examples::CommandLine line = MakeCommandLine(options);
    const std::string error = line.Parse(argc, argv);
    options.help = line.help;
    return error.empty() ? CheckTexts(options) : error;
}

std::string GetUsage() {
    return "usage: kv_server [options]\n"
           "\n"
           "An in-memory key-value server that speaks RESP2.\n"
           "\n"
           "  --bind ADDR               IPv4 or IPv6 address to listen on (127.0.0.1)\n"
           "  --port P                  port to listen on; 0 takes a free one (6379)\n"
           "  --idle-timeout SECONDS    hang up on a client that was silent this long; 0 for\n"
           "                            never (300)\n"
           "  --max-clients N           clients at the same time; more are told so and hung up\n"
           "                            on (10000)\n"
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
}

}  // namespace kv_server
