// http_server: the files below a folder, over HTTP/1.1 and TLS. See --help.
#include <common/CommandLine.h>
#include <http_server/Files.h>
#include <http_server/Session.h>
#include <nx/nx.h>

#include <cerrno>
#include <memory>
#include <string>
#include <system_error>

namespace {

using namespace http_server;

constexpr const char* c_usage =
    "usage: http_server [options]\n"
    "\n"
    "Serves the files below a folder over HTTP/1.1.\n"
    "\n"
    "  --root FOLDER      what to serve (.)\n"
    "  --listen ENDPOINT  where: 127.0.0.1:8080, *:80, [::1]:0, unix:/run/http.sock\n"
    "                     (127.0.0.1:8080)\n"
    "  --threads N        loops, each on a thread; 0 for one per processor (1)\n"
    "  --cert FILE        serves TLS with this certificate (PEM) and its chain\n"
    "  --key FILE         the key of the certificate\n"
    "  --help             print this\n"
    "\n"
    "SIGTERM and SIGINT stop it when the downloads under way are complete, after 10 s at\n"
    "the latest; SIGHUP has the certificate read anew.\n";

struct Options {
    std::string root = ".";
    std::string listen = "127.0.0.1:8080";
    std::string certificate;
    std::string key;
    std::uint64_t threads = 1;
};

examples::CommandLine Describe(Options& options) {
    examples::CommandLine line{};
    line.usage = c_usage;
    line.texts = {{"--root", &options.root},
                  {"--listen", &options.listen},
                  {"--cert", &options.certificate},
                  {"--key", &options.key}};
    line.numbers = {{"--threads", &options.threads, 0, 1024}};
    return line;
}

CNxListenOptions Configure(const Options& options, CNxServer& server) {
    CNxListenOptions listen;
    listen.connection.highWater = Session::c_highWater;
    listen.connection.lowWater = Session::c_highWater / 4;
    // A file of 1 MiB by one call takes a quarter less of the processor than by four.
    listen.connection.bytesPerTurn = 2UL << 20;
    listen.connection.idleTimeout = CNxTimeValue(60, 0);
    if (!options.certificate.empty() || !options.key.empty()) {
        CNxTlsOptions tls;
        tls.certificateFile = options.certificate;
        tls.keyFile = options.key;
        tls.protocols = {"http/1.1"};
        listen.connection.tls = server.MakeTls(tls);
    }
    return listen;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (const auto status = Describe(options).Read(argc, argv)) {
        return *status;
    }
    CNxOwnLines::Send(CNxOwnLines::NOWHERE);
    Files files;
    CNxServerOptions process;
    process.loops.loops = static_cast<unsigned>(options.threads);
    CNxServer server(argc, argv, process);
    if (!files.Open(options.root)) {
        server.Fail(options.root + ": " + std::system_category().message(errno));
    }
    server.Listen(
        options.listen, [&files] { return std::make_unique<Session>(files); },
        Configure(options, server));
    server.Announce();
    return server.Run();
}
