// reliable_sender: requests over UDP that are sent until they are answered. See --help.
#include <common/CommandLine.h>
#include <nx/nx.h>

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <future>
#include <map>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <string_view>

namespace {

constexpr const char* c_usage =
    R"(usage: reliable_sender --port P [options]
       reliable_sender --listen P [options]

Sends requests over UDP, each again until the peer has answered it. With --listen it is
the peer.

  --host HOST        name or address of the peer, or the address to listen on (127.0.0.1)
  --port P           the peer's port
  --requests N       requests to send (10)
  --interval MS      a new one every so many milliseconds (100)
  --again MS         one that is not answered by then is sent again (2000)
  --size B           bytes that each carries (32)
  --timeout SECONDS  give up what is unanswered then (never)
  --listen P         answer requests on this port until a signal comes
  --lose PERCENT     as if so many of them had been lost on the way (0)
  --help             print this

A request is a datagram "REQ number bytes", its answer "ACK number"; so netcat can
be the peer as well. Exit status: 0 when every request was answered, 1 when not, 2 for
bad options, 130 and 143 when ended by SIGINT and SIGTERM.
)";

struct Options {
    std::string host = "127.0.0.1";
    std::uint64_t port = 0;
    std::uint64_t requests = 10;
    std::uint64_t interval = 100;
    std::uint64_t again = 2000;
    std::uint64_t size = 32;
    std::uint64_t timeout = 0;
    std::uint64_t listen = 0;
    std::uint64_t lose = 0;
};

examples::CommandLine Describe(Options& options) {
    constexpr std::uint64_t c_maxSize = 60000;  // fits a datagram
    examples::CommandLine line{};
    line.usage = c_usage;
    line.texts = {{"--host", &options.host}};
    line.numbers = {
        {"--port", &options.port, 1, 65535},         {"--requests", &options.requests, 1, 10000},
        {"--interval", &options.interval, 1, 60000}, {"--again", &options.again, 1, 60000},
        {"--size", &options.size, 0, c_maxSize},     {"--timeout", &options.timeout, 1, 1000000},
        {"--listen", &options.listen, 1, 65535},     {"--lose", &options.lose, 0, 100},
    };
    line.check = [&options]() -> std::string {
        const bool isOne = (options.port == 0) != (options.listen == 0);
        return isOne ? "" : "one of --port and --listen is needed";
    };
    return line;
}

// The number behind `verb`, 0 for another datagram.
unsigned ReadNumber(std::string_view datagram, std::string_view verb) {
    unsigned number = 0;
    if (datagram.substr(0, verb.size()) == verb) {
        std::from_chars(datagram.data() + verb.size(), datagram.data() + datagram.size(), number);
    }
    return number;
}

CNxTimeValue FromMs(std::uint64_t ms) {
    return CNxTimeValue(static_cast<long>(ms / 1000), static_cast<long>(ms % 1000 * 1000));
}

// Answers requests, except those that it plays deaf to. On the main thread.
class Peer {
public:
    Peer(CNxServer& server, std::uint64_t lose)
        : m_lose(lose), m_socket(*server.GetReactor(), [this](const CNxReceivedDatagram& received) {
              Answer(received);
          }) {}

    [[nodiscard]] NxResult Open(const CNxEndpoint& endpoint) {
        const NxResult opened = m_socket.Open(endpoint, {});
        if (opened == NX_OK) {
            std::printf("listening on %s\n", m_socket.GetEndpoint().GetText().c_str());
            std::fflush(stdout);
        }
        return opened;
    }

    // A peer is never done.
    [[nodiscard]] bool Report() const {
        std::printf("%u requests, %lu answered\n", m_received, m_socket.GetCounts().sent);
        return false;
    }

private:
    void Answer(const CNxReceivedDatagram& received) {
        const unsigned number = ReadNumber(received.bytes, "REQ ");
        m_received += number != 0 ? 1 : 0;
        if (number != 0 && m_random() % 100 >= m_lose) {
            m_socket.Send(received.from, "ACK " + std::to_string(number));
        }
    }

    const std::uint64_t m_lose;
    std::mt19937 m_random{std::random_device()()};
    unsigned m_received = 0;
    CNxDatagram m_socket;
};

// Sends the requests, each until it is answered. On the main thread.
class Sender {
public:
    // Stops the server when every request is answered or the time is over.
    Sender(CNxServer& server, const Options& options)
        : m_server(server),
          m_loop(*server.GetReactor()),
          m_options(options),
          m_socket(m_loop, [this](const CNxReceivedDatagram& received) { TakeAnswer(received); }) {}

    [[nodiscard]] NxResult Open(const CNxEndpoint& peer) {
        CNxDatagramOptions connected;
        connected.peer = peer;
        NxResult result = m_socket.Open(CNxEndpoint(CNxInetAddr(peer.GetFamily())), connected);
        if (result == NX_OK && m_options.timeout != 0) {
            result = m_deadline.RunAfter(m_loop, FromMs(m_options.timeout * 1000),
                                         [this] { m_server.Stop(); });
        }
        const auto begin = [this] {
            try {
                Begin();
            } catch (const std::bad_alloc&) {
                // At the next interval.
            }
        };
        return result == NX_OK ? m_pace.RunEvery(m_loop, FromMs(m_options.interval), begin)
                               : result;
    }

    // Whether every request was answered.
    [[nodiscard]] bool Report() const {
        const unsigned long answered = m_begun - m_open.size();
        std::printf("requests   %lu of %lu answered, the slowest after %ld ms\n", answered,
                    m_options.requests, m_longest.GetTotalInMsec());
        std::printf("datagrams  %u sent, %u of them again\n", m_sent, m_sent - m_begun);
        return answered == m_options.requests;
    }

private:
    // One that is not answered yet.
    struct Request {
        CNxTimeValue begunAt = CNxTimeValue::GetMonotonicTime();
        CNxTimedCall again;
    };

    void Begin() {
        const unsigned number = m_begun + 1;
        CNxTimedCall& timer = m_open[number].again;
        m_begun = number;
        if (m_begun == m_options.requests) {
            m_pace.Cancel();
        }
        Send(number);
        const auto again = [this, number] { Send(number); };
        if (timer.RunEvery(m_loop, FromMs(m_options.again), again) != NX_OK) {
            m_server.Stop();
        }
    }

    void Send(unsigned number) {
        ++m_sent;
        try {
            const std::string bytes(static_cast<size_t>(m_options.size), 'x');
            m_socket.Send({}, "REQ " + std::to_string(number) + " " + bytes);
        } catch (const std::bad_alloc&) {
            // As lost on the way.
        }
    }

    // The answer to a request that was sent again comes again.
    void TakeAnswer(const CNxReceivedDatagram& received) {
        const auto found = m_open.find(ReadNumber(received.bytes, "ACK "));
        if (found == m_open.end()) {
            return;
        }
        const CNxTimeValue took = CNxTimeValue::GetMonotonicTime() - found->second.begunAt;
        m_longest = took > m_longest ? took : m_longest;
        m_open.erase(found);
        if (m_open.empty() && m_begun == m_options.requests) {
            m_server.Stop();
        }
    }

    CNxServer& m_server;
    INxReactor& m_loop;
    const Options m_options;
    std::map<unsigned, Request> m_open;
    CNxTimedCall m_pace;
    CNxTimedCall m_deadline;
    unsigned m_begun = 0;
    unsigned m_sent = 0;
    CNxTimeValue m_longest;
    CNxDatagram m_socket;
};

struct Answer : INxObserver {
    using Record = std::promise<CNxAutoPtr<CNxDnsRecord>>;

    // Whoever waits may be gone with all of this before the promise has told the last.
    void OnObserve(const char* /*topic*/, void* data) override {
        const std::shared_ptr<Record> kept = record;
        kept->set_value(CNxAutoPtr<CNxDnsRecord>(static_cast<CNxDnsRecord*>(data)));
    }
    const std::shared_ptr<Record> record = std::make_shared<Record>();
};

// The first address of the host. Waits for the look-up, on another loop than that of the main
// thread. Of no family when there is none, which the server then says.
CNxEndpoint LookUp(CNxServer& server, const std::string& host, std::uint64_t port) {
    Answer answer;
    CNxDnsRecord* found = nullptr;
    NxResult result = NxSendCall(*server.GetGroup().GetReactor(0), [&] {
        return CNxDnsManager::Instance()->AsyncResolve(found, host.c_str(), &answer, 0, nullptr);
    });
    auto record = CNxAutoPtr<CNxDnsRecord>::Adopt(found);
    if (result == NX_ERROR_WOULD_BLOCK) {
        record = answer.record->get_future().get();
        result = record->GetResult();
    }
    if (result != NX_OK) {
        server.Fail("cannot find the address of '" + host + "': " + NxResultName(result));
        return {};
    }
    CNxEndpoint endpoint(record->GetAddresses().front());
    endpoint.SetPort(static_cast<unsigned short>(port));
    return endpoint;
}

// Runs a Peer or a Sender until it ends, or a signal comes. Returns the exit status.
template <class Work>
int Run(CNxServer& server, Work&& work, const std::string& host, std::uint64_t port) {
    const CNxEndpoint endpoint = LookUp(server, host, port);
    const NxResult opened = server.HasFailed() ? NX_OK : work.Open(endpoint);
    if (opened != NX_OK) {
        server.Fail("cannot open " + endpoint.GetText() + ": " + NxResultName(opened));
    }
    if (server.Run() != 0) {
        return examples::c_statusFailed;
    }
    const int signo = server.GetSignal();
    return work.Report() ? 0 : signo != 0 ? 128 + signo : examples::c_statusFailed;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        Options options;
        if (const auto status = Describe(options).Read(argc, argv)) {
            return *status;
        }
        CNxOwnLines::Send(CNxOwnLines::NOWHERE);
        CNxServer server(argc, argv);
        if (server.HasFailed()) {
            return server.Run();
        }
        return options.listen != 0
                   ? Run(server, Peer(server, options.lose), options.host, options.listen)
                   : Run(server, Sender(server, options), options.host, options.port);
    } catch (const std::exception& error) {
        return examples::Fail(error.what());
    }
}
