// reliable_sender: requests over UDP that are sent until they are answered. See --help.
//
// The main thread only waits. The socket and what answers the timers are the network thread's.
#include <common/CommandLine.h>
#include <common/HostLookup.h>
#include <common/Program.h>
#include <nx/thread/CNxThreadManager.h>
#include <reliable_sender/Options.h>
#include <reliable_sender/Peer.h>
#include <reliable_sender/Sender.h>

#include <cstdio>
#include <string>

namespace {

using namespace examples;
using namespace reliable_sender;

constexpr const char* c_usage =
    "usage: reliable_sender --port P [options]\n"
    "       reliable_sender --listen P [options]\n"
    "\n"
    "Sends requests over UDP, each again every 2 seconds until the peer has answered it.\n"
    "With --listen it is the peer.\n"
    "\n"
    "  --host HOST        name or address of the peer (127.0.0.1)\n"
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

CommandLine Describe(Options& options) {
    // What a precise timer can wait for, and what fits a datagram.
    constexpr std::uint64_t c_maxTimeout = 7000;
    constexpr std::uint64_t c_maxSize = 60000;
    CommandLine line{};
    line.usage = c_usage;
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
    line.check = [&options]() -> std::string {
        if ((options.port == 0) == (options.listen == 0)) {
            return "one of --port and --listen is needed";
        }
        return {};
    };
    return line;
}

int RunPeer(const Options& options, const CNxInetAddr& address, Program& program) {
    Peer peer(program.GetReactor(), options.lose);
    NetworkWork work;
    work.open = [&]() -> std::string {
        if (!peer.Open(address)) {
            return "cannot listen there";
        }
        std::printf("listening on %s\n", peer.GetAddress().GetHostPort().c_str());
        std::fflush(stdout);
        return {};
    };
    work.close = [&peer] { peer.Close(); };
    const std::string error = program.Run(work);
    if (!error.empty()) {
        return Fail(error);
    }
    std::printf("%llu requests, %llu answered\n",
                static_cast<unsigned long long>(peer.GetReceived()),
                static_cast<unsigned long long>(peer.GetAnswered()));
    return c_statusSignal + program.GetSignal();
}

int RunSender(const Options& options, const CNxInetAddr& address, Program& program) {
    Sender sender(options, address, program.GetReactor(), StopMain);
    NetworkWork work;
    work.open = [&sender]() -> std::string {
        return sender.Open() ? "" : "cannot open a socket or start a timer";
    };
    work.close = [&sender] { sender.Close(); };
    const std::string error = program.Run(work);
    if (!error.empty()) {
        return Fail(error);
    }
    const Progress& progress = sender.GetProgress();
    std::printf("requests   %u of %llu answered, the slowest after %lld ms\n", progress.answered,
                static_cast<unsigned long long>(options.requests),
                static_cast<long long>(progress.longestNs / 1000000));
    std::printf("datagrams  %llu sent, %llu of them again\n",
                static_cast<unsigned long long>(progress.sent),
                static_cast<unsigned long long>(progress.sent - progress.posted));
    if (progress.answered == options.requests) {
        return 0;
    }
    return program.GetSignal() != 0 ? c_statusSignal + program.GetSignal() : c_statusFailed;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (const auto status = Describe(options).Read(argc, argv)) {
        return *status;
    }
    Program program;
    if (!program.Init(argc, argv) ||
        !program.StartNetwork(CNxThreadManager::CreateNetworkReactor())) {
        return Fail("cannot start the network thread");
    }
    const bool isPeer = options.listen != 0;
    CNxInetAddr address;
    const std::string unknown = LookUpHost(
        options.host, static_cast<unsigned short>(isPeer ? options.listen : options.port), address);
    if (!unknown.empty()) {
        return Fail(unknown);
    }
    return isPeer ? RunPeer(options, address, program) : RunSender(options, address, program);
}
