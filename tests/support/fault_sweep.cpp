// A program with every system call failing: fault_sweep MODE COMMAND SHIM [long]. See
// scripts/sweep.
//
// In three parts: each call failing once while it starts and serves nobody yet; each failing once
// under load; each failing for a time under load, then while it stops. After every fault it must
// live and serve (or, at the start, end with a status that says why), and stop in time. Who echoes
// may then have no more descriptors than before, and while calls fail and nobody connects it
// sleeps.
#include <dlfcn.h>
#include <nx/net/CNxSocket.h>
#include <openssl/ssl.h>
#include <tests/support/Connection.h>
#include <tests/support/FaultPlan.h>
#include <tests/support/Process.h>
#include <tests/support/TempFolder.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr long c_most = 1000;
constexpr milliseconds c_stopLimit(6000);
constexpr milliseconds c_recoverLimit(5000);

struct Fault {
    const char* name;
    FaultPlan::ECall call;
    std::vector<int> errors;
};

#define NX_FAULT(name, ...) {#name, FaultPlan::CALL_##name, {__VA_ARGS__}},
const Fault c_faults[] = {NX_FAULT_CALLS(NX_FAULT)};
#undef NX_FAULT

template <class Condition>
bool WaitUntil(milliseconds limit, Condition condition) {
    const auto end = Clock::now() + limit;
    while (!condition()) {
        if (Clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(milliseconds(1));
    }
    return true;
}

// With TLS over the connection when there is a context, in pieces when it is for datagrams.
class Client {
public:
    Client(Connection connection, SSL_CTX* tls, size_t piece)
        : m_connection(std::move(connection)),
          m_piece(piece),
          m_bytes(BIO_new_socket(m_connection.GetHandle(), BIO_NOCLOSE), BIO_free_all) {
        if (tls != nullptr) {
            m_bytes.reset(BIO_push(BIO_new_ssl(tls, 1), m_bytes.release()));
        }
    }

    // What fails here does so again when it is received.
    void Send(std::string_view bytes) const {
        int sent = 1;
        for (; sent > 0 && !bytes.empty(); bytes.remove_prefix(std::min(m_piece, bytes.size()))) {
            sent = BIO_write(m_bytes.get(), bytes.data(),
                             static_cast<int>(std::min(m_piece, bytes.size())));
        }
    }

    // So many bytes, less when the server hangs up or is silent.
    size_t Receive(size_t size) const {
        char bytes[16384];
        size_t all = 0;
        size_t got = 0;
        while (all < size && BIO_read_ex(m_bytes.get(), bytes, sizeof(bytes), &got) == 1) {
            all += got;
        }
        return all;
    }

private:
    const Connection m_connection;
    const size_t m_piece;
    std::unique_ptr<BIO, void (*)(BIO*)> m_bytes;
};

struct Server : Process {
    explicit Server(const std::string& command) : Process(command) {
        static_cast<void>(m_endpoint.Set(ReadEndpoint().c_str()));
    }

    milliseconds GetCpuTime() const {
        clockid_t clock = 0;
        timespec time{};
        if (clock_getcpuclockid(GetPid(), &clock) == 0) {
            clock_gettime(clock, &time);
        }
        return milliseconds(time.tv_sec * 1000 + time.tv_nsec / 1000000);
    }

    // Whether it ended well and in time.
    bool Stop() {
        if (!HasEnded()) {
            Signal(SIGTERM);
        }
        return WaitUntil(c_stopLimit, [&] { return HasEnded(); }) && Wait() == 0;
    }

    CNxEndpoint m_endpoint;
};

class Sweep {
public:
    // In the mode connector it is the sweep that listens, and the program that connects.
    Sweep(const std::string& mode, const std::string& command, const std::string& shim, bool isLong)
        : m_isLong(isLong),
          m_isEcho(mode != "kv"),
          m_type(mode == "datagram" ? SOCK_DGRAM : SOCK_STREAM),
          m_tls(mode == "tls" ? SSL_CTX_new(TLS_client_method()) : nullptr),
          m_plan(OpenPlan(shim)),
          m_command("env NX_FAULT_PLAN=" + m_home.Path("plan") + " LD_PRELOAD=" + shim + " " +
                    command + (mode == "connector" ? " localhost:" + Listen() : "") +
                    " 2>/dev/null") {
        if (m_tls != nullptr) {
            SSL_CTX_set_quiet_shutdown(m_tls, 1);
        }
    }

    // Returns how many went wrong.
    int Run() {
        ForEach("start", [this] { return Start(); });
        ForEach("once", [this] { return Once(); });
        ForEach("a time", [this] { return ForATime(); });
        std::printf("%ld faults injected in %ld runs, %d wrong\n", m_injected, m_runs, m_wrong);
        return m_wrong;
    }

private:
    // The shim reads the plan in this program too, which calls it for nothing else.
    FaultPlan* OpenPlan(const std::string& shim) const {
        const std::string nothing(sizeof(FaultPlan), '\0');
        setenv("NX_FAULT_PLAN", m_home.Put("plan", nothing).c_str(), 1);
        void* const library = dlopen(shim.c_str(), RTLD_NOW | RTLD_LOCAL);
        return reinterpret_cast<decltype(&nx_fault_plan)>(dlsym(library, "nx_fault_plan"))();
    }

    std::string Listen() {
        const timeval patience{0, 100000};
        CNxInetAddr address;
        if (m_listener.Open(0, CNxInetAddr("127.0.0.1", 0)) != 0 ||
            listen(m_listener.GetHandle(), 100) != 0 || m_listener.GetLocalAddr(address) != 0) {
            std::abort();
        }
        setsockopt(m_listener.GetHandle(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
        return std::to_string(address.GetPort());
    }

    // With the oldest connection of a program that connects that there was no client for.
    Client Connect(const Server& server, int patience) const {
        const milliseconds limit(patience);
        const int listener = m_listener.GetHandle();
        return {listener != -1
                    ? Connection(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC), limit)
                    : Connection(server.m_endpoint, limit, 0, m_type),
                m_tls, m_type == SOCK_DGRAM ? 1000 : m_set.size()};
    }

    bool Serves(Server& server) const {
        const auto answers = [&] {
            const Client client = Connect(server, 500);
            client.Send(m_isEcho ? "PING\r\n." : "PING\r\n");
            return server.HasEnded() || client.Receive(7) == 7;
        };
        return WaitUntil(c_recoverLimit, answers) && !server.HasEnded();
    }

    FaultPlan::Call& GetCall() const { return m_plan->calls[m_fault->call]; }

    // The step makes the runs for one call and error, each with the next number, until it says that
    // there is no more to do.
    template <class Step>
    void ForEach(const char* part, Step step) {
        m_part = part;
        for (const Fault& fault : c_faults) {
            for (const int error : fault.errors) {
                m_fault = &fault;
                m_error = error;
                m_number = -1;
                // Who relies on edges may be told to wait only where an edge follows.
                bool goesOn = error != EAGAIN || (!m_isEcho && fault.call != FaultPlan::CALL_read);
                while (goesOn) {
                    ++m_runs;
                    m_number += m_isLong || m_number < 2 ? 1 : m_number / 2;
                    goesOn = step();
                    GetCall().count = 0;
                    m_injected += GetCall().failed;
                }
            }
        }
        m_server.reset();
    }

    void Check(bool isRight, const char* what) {
        if (!isRight) {
            ++m_wrong;
            std::printf("WRONG: %s: %s %s, number %ld: %s\n", m_part, m_fault->name,
                        strerrorname_np(m_error), m_number, what);
            std::fflush(stdout);
            m_isSpoilt = true;
        }
    }

    // Every N-th call from the start to the first PING.
    bool Start() {
        GetCall().Fail(m_error, m_number, 1);
        Server server(m_command);
        // Where a part of it could not start it ends by itself, maybe while it serves.
        Check((Serves(server) && server.Stop()) || (server.HasEnded() && server.Wait() == 1),
              "neither serves and stops nor ends with status 1");
        return GoesOn();
    }

    bool GoesOn() const { return GetCall().failed != 0 && m_number < c_most; }

    Server& GetServer() {
        if (m_server == nullptr || m_isSpoilt || m_server->HasEnded()) {
            m_isSpoilt = false;
            m_server.reset();
            m_server = std::make_unique<Server>(m_command);
            // It says where it listens before its last thread is there, and its last connection.
            static_cast<void>(Serves(*m_server));
            std::this_thread::sleep_for(milliseconds(100));
            m_descriptors = m_server->CountDescriptors();
            const Client writer = Connect(*m_server, 1000);
            writer.Send(m_set);
            static_cast<void>(writer.Receive(5));
        }
        return *m_server;
    }

    // Several clients, requests in pieces, replies larger than a socket's buffer.
    void Load(const Server& server, int patience) const {
        const Client writer = Connect(server, patience);
        const Client reader = Connect(server, patience);
        const Client other = Connect(server, patience);
        writer.Send(std::string_view(m_set).substr(0, 100000));
        other.Send("SET a 1 PX 1\r\nINCR n\r\nKEYS *\r\nnonsense\r\n*bad\r\n");
        reader.Send(m_isEcho ? m_set : "GET big\r\nGET big\r\n");
        other.Receive(100);
        reader.Receive(2 << 20);
    }

    bool Once() {
        Server& server = GetServer();
        GetCall().Fail(m_error, m_number, 1);
        Load(server, 20);
        Check(Serves(server), "does not serve");
        CheckDescriptors();
        return GoesOn();
    }

    bool ForATime() {
        const auto end = Clock::now() + milliseconds(m_isLong ? 3000 : 30);
        Server& server = GetServer();
        GetCall().Fail(m_error, 0, LONG_MAX);
        do {
            Load(server, 10);
        } while (Clock::now() < end && !server.HasEnded());
        CheckRest();
        GetCall().count = 0;
        Check(Serves(server), "does not serve afterwards");
        CheckDescriptors();
        if (m_isLong) {
            m_injected += GetCall().failed;
            // Signals are read on the main loop, which echo_peer has no other than.
            const bool isPeer = m_type == SOCK_DGRAM || m_listener.GetHandle() != -1;
            const bool isDeaf =
                m_fault->call == FaultPlan::CALL_read || (isPeer && m_error == EINTR);
            GetCall().Fail(m_error, 0, isDeaf ? 0 : LONG_MAX);
            Check(server.Stop(), "does not stop while the calls fail");
        }
        return false;
    }

    void CheckDescriptors() {
        if (m_isEcho) {
            const auto isBack = [this] { return m_server->CountDescriptors() <= m_descriptors; };
            Check(WaitUntil(c_recoverLimit, isBack), "keeps descriptors");
        }
    }

    // Calls that are interrupted, or tell of something sent before, are made again at once.
    void CheckRest() {
        const bool isOver = m_fault->call == FaultPlan::CALL_recvmmsg && m_error == ECONNREFUSED;
        if (!m_isEcho || m_error == EINTR || isOver) {
            return;
        }
        std::this_thread::sleep_for(milliseconds(100));
        const milliseconds before = m_server->GetCpuTime();
        std::this_thread::sleep_for(milliseconds(200));
        Check(m_server->GetCpuTime() - before < milliseconds(100), "spins");
    }

    const bool m_isLong;
    const std::string m_set =
        "*3\r\n$3\r\nSET\r\n$3\r\nbig\r\n$1048576\r\n" + std::string(1 << 20, 'v') + "\r\n";
    const CTempFolder m_home;
    const bool m_isEcho;
    const int m_type;
    SSL_CTX* const m_tls;
    CNxSocketTcp m_listener;
    FaultPlan* const m_plan;
    const std::string m_command;
    std::unique_ptr<Server> m_server;
    const char* m_part = "";
    const Fault* m_fault = nullptr;
    int m_error = 0;
    long m_number = 0;
    long m_descriptors = 0;
    long m_injected = 0;
    long m_runs = 0;
    int m_wrong = 0;
    bool m_isSpoilt = false;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) {
        std::fprintf(stderr, "usage: fault_sweep MODE COMMAND SHIM [long]\n");
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);
    return Sweep(argv[1], argv[2], argv[3], argc > 4).Run() == 0 ? 0 : 1;
}
