// A server with every system call failing: fault_sweep PROGRAM SHIM [--long] [MODE]
//
// MODE is kv, for kv_server, without one; echo_server has tcp, unix and tls.
//
// In three parts: each call failing once while it starts and serves nobody yet; each failing once
// under load; each failing for a time under load, then while it stops. After every fault it must
// live and serve (or, at the start, end with a status that says why), and stop in time. echo_server
// may then have no more descriptors than before, and while calls fail and nobody connects it
// sleeps.
#include <sys/wait.h>
#include <tests/support/Connection.h>
#include <tests/support/FaultFile.h>
#include <tests/support/TempFolder.h>
#include <tests/support/TestCertificates.h>
#ifdef NX_SWEEP_TLS
#include <openssl/ssl.h>
#endif

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds c_stopLimit(6000);
constexpr milliseconds c_recoverLimit(5000);

struct Fault {
    const char* name;
    FaultPlan::ECall call;
    std::vector<int> errors;
};

#define NX_FAULT(name, ...) {#name, FaultPlan::CALL_##name, {__VA_ARGS__}},
const std::vector<Fault>& GetFaults() {
    static const std::vector<Fault> s_faults{NX_FAULT_CALLS(NX_FAULT)};
    return s_faults;
}
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

// What is started, and where it says that it listens.
struct Program {
    std::vector<std::string> command;
    std::string path;  // of a unix socket
    bool hasTls = false;
    bool isEcho = false;
};

// With TLS over the connection when the program has it.
class Client {
public:
    Client(const Program& program, unsigned short port, milliseconds limit)
        : m_connection(program.path.empty() ? Connection(port, limit)
                                            : Connection(program.path, limit)) {
#ifdef NX_SWEEP_TLS
        if (program.hasTls) {
            static SSL_CTX* const s_context = SSL_CTX_new(TLS_client_method());
            m_ssl.reset(SSL_new(s_context));
            SSL_set_fd(m_ssl.get(), m_connection.GetHandle());
            // What fails here does so again.
            static_cast<void>(SSL_connect(m_ssl.get()));
        }
#endif
    }

    void Send(std::string_view bytes) const {
#ifdef NX_SWEEP_TLS
        if (m_ssl) {
            SSL_write(m_ssl.get(), bytes.data(), static_cast<int>(bytes.size()));
            return;
        }
#endif
        m_connection.TrySend(bytes);
    }

    // So many bytes, less when the server hangs up or is silent.
    size_t Receive(size_t size) const {
#ifdef NX_SWEEP_TLS
        if (m_ssl) {
            char bytes[16384];
            size_t all = 0;
            size_t got = 0;
            while (all < size && SSL_read_ex(m_ssl.get(), bytes, sizeof(bytes), &got) == 1) {
                all += got;
            }
            return all;
        }
#endif
        return m_connection.Receive(size).size();
    }

private:
    const Connection m_connection;
#ifdef NX_SWEEP_TLS
    struct CFree {
        void operator()(SSL* ssl) const { SSL_free(ssl); }
    };
    std::unique_ptr<SSL, CFree> m_ssl;
#endif
};

// The server in a home of its own, in which kv_server traces.
class Server {
public:
    Server(const Program& program, const CTempFolder& home)
        : m_program(program), m_output(home.Path("output")) {
        std::filesystem::remove(m_output);
        m_pid = fork();
        if (m_pid == 0) {
            const int out = open(m_output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
            dup2(out, STDOUT_FILENO);
            dup2(out, STDERR_FILENO);
            std::vector<char*> arguments;
            for (const std::string& argument : program.command) {
                arguments.push_back(const_cast<char*>(argument.c_str()));
            }
            arguments.push_back(nullptr);
            execv(arguments[0], arguments.data());
            _exit(127);
        }
        m_isStuck = !WaitUntil(c_recoverLimit, [&] { return HasEnded() || ReadPort(home); });
    }
    ~Server() {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
    }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    unsigned short GetPort() const { return m_port; }
    bool IsStuck() const { return m_isStuck; }

    bool HasEnded() {
        if (m_pid > 0 && waitpid(m_pid, &m_status, WNOHANG) == m_pid) {
            m_pid = 0;
        }
        return m_pid == 0;
    }
    bool HasEndedWith(int status) {
        return HasEnded() && WIFEXITED(m_status) && WEXITSTATUS(m_status) == status;
    }

    bool Serves() {
        const auto answers = [this] {
            const Client client(m_program, m_port, milliseconds(500));
            client.Send(m_program.isEcho ? "PING\r\n." : "PING\r\n");
            return HasEnded() || client.Receive(7) == 7;
        };
        return WaitUntil(c_recoverLimit, answers) && !HasEnded();
    }

    long CountDescriptors() const {
        std::error_code error;
        const std::filesystem::directory_iterator all(GetProc("fd"), error);
        return std::distance(all, {});
    }

    // In clock ticks.
    long GetCpuTime() const {
        long user = 0;
        long system = 0;
        std::FILE* const file = std::fopen(GetProc("stat").c_str(), "r");
        if (file != nullptr) {
            constexpr const char* c_format =
                "%*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %ld %ld";
            static_cast<void>(std::fscanf(file, c_format, &user, &system));
            std::fclose(file);
        }
        return user + system;
    }

    // Whether it ended well and in time.
    bool Stop() {
        kill(m_pid, SIGTERM);
        return WaitUntil(c_stopLimit, [&] { return HasEnded(); }) && HasEndedWith(0);
    }

private:
    std::string GetProc(const char* name) const {
        return "/proc/" + std::to_string(m_pid) + "/" + name;
    }

    bool ReadPort(const CTempFolder& home) {
        const std::string text = home.Get("output");
        if (!m_program.path.empty()) {
            return text.find("listening on unix:") != std::string::npos;
        }
        const size_t at = text.find("listening on 127.0.0.1:");
        if (at != std::string::npos && text.find('\n', at) != std::string::npos) {
            m_port = static_cast<unsigned short>(std::atoi(text.c_str() + at + 23));
        }
        return m_port != 0;
    }

    const Program& m_program;
    const std::string m_output;
    pid_t m_pid = 0;
    int m_status = 0;
    unsigned short m_port = 0;
    bool m_isStuck = false;
};

class Sweep {
public:
    Sweep(const std::string& program, const char* shim, const std::string& mode, bool isLong)
        : m_isLong(isLong), m_program(MakeProgram(mode)), m_faults(m_home.Path("plan"), shim) {
        std::filesystem::create_directories(m_home.Path("bin"));
        std::filesystem::create_directories(m_home.Path("conf"));
        std::filesystem::copy_file(program, m_program.command[0]);
        m_home.Put("conf/kv_server.cfg",
                   "[Trace]\nEnable=TRUE\nkv_server.Info=TRUE\nkv_server.Warning=TRUE\n"
                   "kv_server.Error=TRUE\nkv_server=4096\n");
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
    Program MakeProgram(const std::string& mode) const {
        Program made;
        made.isEcho = mode == "tcp" || mode == "unix" || mode == "tls";
        if (!made.isEcho) {
            made.command = {m_home.Path("bin/kv_server"), "--port=0"};
            return made;
        }
        made.path = mode == "unix" ? m_home.Path("socket") : "";
        made.hasTls = mode == "tls";
        made.command = {m_home.Path("bin/echo_server"),
                        made.path.empty() ? "127.0.0.1:0" : "unix:" + made.path};
        if (made.hasTls) {
            static const CTestCertificates s_certificates;
            made.command.push_back(s_certificates.Certificate("server"));
            made.command.push_back(s_certificates.Key("server"));
        }
        return made;
    }

    // The step makes the runs for one call and error, each with the next number, until it says that
    // there is no more to do.
    template <class Step>
    void ForEach(const char* part, Step step) {
        m_part = part;
        const long injectedBefore = m_injected;
        const long runsBefore = m_runs;
        for (const Fault& fault : GetFaults()) {
            for (const int error : fault.errors) {
                m_fault = &fault;
                m_error = error;
                m_number = -1;
                // Who relies on edges may be told to wait only where an edge follows.
                bool goesOn =
                    error != EAGAIN || (!m_program.isEcho && fault.call != FaultPlan::CALL_read);
                while (goesOn) {
                    ++m_runs;
                    ++m_number;
                    goesOn = step();
                    m_injected += m_faults.GetFailed(fault.call);
                }
            }
        }
        m_server.reset();
        std::printf("%-7s %5ld runs, %8ld faults\n", part, m_runs - runsBefore,
                    m_injected - injectedBefore);
        std::fflush(stdout);
    }

    void Check(bool isRight, const char* what) {
        if (!isRight) {
            ++m_wrong;
            std::printf("WRONG: %s: %s %s, number %ld: %s\n", m_part, m_fault->name,
                        strerrorname_np(m_error), m_number, what);
            std::fflush(stdout);
            m_server.reset();
        }
    }

    // Every N-th call from the start to the first PING.
    bool Start() {
        m_faults.Fail(m_fault->call, m_error, m_number, 1);
        Server server(m_program, m_home);
        Check(!server.IsStuck(), "neither serves nor ends");
        if (server.HasEnded()) {
            Check(server.HasEndedWith(1), "crashed or ended with another status than 1");
        } else if (!server.IsStuck()) {
            // It may also end after it has said where it listens.
            Check(server.Serves() || server.HasEndedWith(1), "does not serve");
            // Where a part of it could not start, it is on its way to its end already.
            Check(server.HasEnded() || server.Stop() || server.HasEndedWith(1), "does not stop");
        }
        return WasInjected() && m_number + 1 < (m_isLong ? 1000 : 6);
    }

    bool WasInjected() const { return m_faults.GetFailed(m_fault->call) != 0; }

    Server& GetServer() {
        if (m_server == nullptr || m_server->HasEnded()) {
            m_faults.Clear();
            m_server = std::make_unique<Server>(m_program, m_home);
            // It says where it listens before its last thread is there.
            static_cast<void>(m_server->Serves());
            m_descriptors = m_server->CountDescriptors();
            const Client writer(m_program, m_server->GetPort(), milliseconds(1000));
            writer.Send(m_set);
            static_cast<void>(writer.Receive(5));
        }
        return *m_server;
    }

    // Several clients, requests in pieces, replies larger than a socket's buffer.
    void Load(milliseconds patience) {
        const unsigned short port = GetServer().GetPort();
        const Client writer(m_program, port, patience);
        const Client reader(m_program, port, patience);
        const Client other(m_program, port, patience);
        writer.Send(std::string_view(m_set).substr(0, 100000));
        other.Send("SET a 1 PX 1\r\nINCR n\r\nKEYS *\r\nnonsense\r\n*bad\r\n");
        reader.Send(m_program.isEcho ? m_set : "GET big\r\nGET big\r\n");
        other.Receive(100);
        reader.Receive(2 << 20);
    }

    bool Once() {
        Server& server = GetServer();
        m_faults.Fail(m_fault->call, m_error, m_number, 1);
        Load(milliseconds(20));
        Check(server.Serves(), "does not serve");
        CheckDescriptors();
        return WasInjected() && m_number + 1 < (m_isLong ? 20 : 6);
    }

    bool ForATime() {
        const auto end = Clock::now() + milliseconds(m_isLong ? 3000 : 30);
        Server& server = GetServer();
        m_faults.FailAll(m_fault->call, m_error);
        do {
            Load(milliseconds(10));
        } while (Clock::now() < end && !server.HasEnded());
        CheckRest();
        m_faults.Clear();
        if (m_server != nullptr) {
            Check(server.Serves(), "does not serve afterwards");
            CheckDescriptors();
        }
        if (m_isLong && m_server != nullptr) {
            m_injected += m_faults.GetFailed(m_fault->call);
            m_faults.FailAll(m_fault->call, m_error);
            Check(m_server->Stop(), "does not stop while the calls fail");
            m_faults.Clear();
        }
        return false;
    }

    void CheckDescriptors() {
        if (m_program.isEcho && m_server != nullptr) {
            const auto isBack = [this] { return m_server->CountDescriptors() <= m_descriptors; };
            Check(WaitUntil(c_recoverLimit, isBack), "keeps descriptors");
        }
    }

    // Calls that are interrupted are made again at once.
    void CheckRest() {
        if (!m_program.isEcho || m_error == EINTR) {
            return;
        }
        std::this_thread::sleep_for(milliseconds(100));
        const long before = m_server->GetCpuTime();
        std::this_thread::sleep_for(milliseconds(200));
        Check(m_server->GetCpuTime() - before < 10, "spins");
    }

    const bool m_isLong;
    const std::string m_set =
        "*3\r\n$3\r\nSET\r\n$3\r\nbig\r\n$1048576\r\n" + std::string(1 << 20, 'v') + "\r\n";
    const CTempFolder m_home;
    const Program m_program;
    const FaultFile m_faults;
    std::unique_ptr<Server> m_server;
    const char* m_part = "";
    const Fault* m_fault = nullptr;
    int m_error = 0;
    long m_number = 0;
    long m_descriptors = 0;
    long m_runs = 0;
    long m_injected = 0;
    int m_wrong = 0;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: fault_sweep PROGRAM SHIM [--long] [MODE]\n");
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);
    const bool isLong = argc > 3 && std::strcmp(argv[3], "--long") == 0;
    const int at = isLong ? 4 : 3;
    Sweep sweep(argv[1], argv[2], argc > at ? argv[at] : "kv", isLong);
    return sweep.Run() == 0 ? 0 : 1;
}
