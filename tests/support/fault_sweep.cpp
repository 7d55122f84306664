// A server with every system call failing: fault_sweep PROGRAM SHIM [--long] [MODE]
//
// MODE is kv, for kv_server, without one; echo_server has tcp, unix and tls.
//
// In three parts: each call failing once while it starts and serves nobody yet; each failing once
// under load; each failing for a time under load, then while it stops. After every fault it must
// live and serve (or, at the start, end with a status that says why), and stop in time. echo_server
// may then have no more descriptors than before, and while calls fail and nobody connects it
// sleeps.
#include <dlfcn.h>
#include <fcntl.h>
#include <openssl/ssl.h>
#include <sys/wait.h>
#include <tests/support/Connection.h>
#include <tests/support/FaultPlan.h>
#include <tests/support/TempFolder.h>
#include <tests/support/TestCertificates.h>

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

// With TLS over the connection when the server has it.
class Client {
public:
    Client(const CNxEndpoint& server, bool hasTls, milliseconds limit)
        : m_connection(server, limit),
          m_bytes(BIO_new_socket(m_connection.GetHandle(), BIO_NOCLOSE)) {
        static SSL_CTX* const s_context = SSL_CTX_new(TLS_client_method());
        SSL_CTX_set_quiet_shutdown(s_context, 1);
        if (hasTls) {
            m_bytes.reset(BIO_push(BIO_new_ssl(s_context, 1), m_bytes.release()));
        }
    }

    // What fails here does so again when it is received.
    void Send(std::string_view bytes) const {
        BIO_write(m_bytes.get(), bytes.data(), static_cast<int>(bytes.size()));
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
    struct CFree {
        void operator()(BIO* bytes) const { BIO_free_all(bytes); }
    };
    const Connection m_connection;
    std::unique_ptr<BIO, CFree> m_bytes;
};

struct Program {
    std::string file;
    std::string argument;
    bool isEcho;
    bool hasTls;
    std::string certificate;
    std::string key;
};

// The server in a home of its own, in which kv_server traces.
class Server {
public:
    Server(const Program& program, const CTempFolder& home)
        : m_program(program), m_output(home.Put("output", "")), m_pid(fork()) {
        if (m_pid == 0) {
            Execute();
        }
        WaitUntil(c_recoverLimit, [&] { return HasEnded() || ReadEndpoint(home); });
    }
    ~Server() {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
    }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    bool HasEnded() {
        if (m_pid > 0 && waitpid(m_pid, &m_status, WNOHANG) == m_pid) {
            m_pid = 0;
        }
        return m_pid == 0;
    }
    bool HasEndedWith(int status) {
        return HasEnded() && WIFEXITED(m_status) && WEXITSTATUS(m_status) == status;
    }

    Client Connect(int limit) const { return {m_endpoint, m_program.hasTls, milliseconds(limit)}; }

    bool Serves() {
        const auto answers = [this] {
            const Client client = Connect(500);
            client.Send(m_program.isEcho ? "PING\r\n." : "PING\r\n");
            return HasEnded() || client.Receive(7) == 7;
        };
        return WaitUntil(c_recoverLimit, answers) && !HasEnded();
    }

    long CountDescriptors() const {
        std::error_code error;
        const std::string folder = "/proc/" + std::to_string(m_pid) + "/fd";
        return std::distance(std::filesystem::directory_iterator(folder, error), {});
    }

    milliseconds GetCpuTime() const {
        clockid_t clock = 0;
        timespec time{};
        if (clock_getcpuclockid(m_pid, &clock) == 0) {
            clock_gettime(clock, &time);
        }
        return milliseconds(time.tv_sec * 1000 + time.tv_nsec / 1000000);
    }

    // Whether it ended well and in time.
    bool Stop() {
        if (!HasEnded()) {
            kill(m_pid, SIGTERM);
        }
        return WaitUntil(c_stopLimit, [&] { return HasEnded(); }) && HasEndedWith(0);
    }

private:
    [[noreturn]] void Execute() const {
        const int out = open(m_output.c_str(), O_WRONLY | O_CLOEXEC);
        dup2(out, STDOUT_FILENO);
        dup2(out, STDERR_FILENO);
        const char* const file = m_program.file.c_str();
        const char* const certificate = m_program.hasTls ? m_program.certificate.c_str() : nullptr;
        execl(file, file, m_program.isEcho ? m_program.argument.c_str() : "--port=0", certificate,
              m_program.key.c_str(), nullptr);
        _exit(127);
    }

    bool ReadEndpoint(const CTempFolder& home) {
        const std::string text = home.Get("output");
        const size_t at = text.find(c_saying);
        const size_t end = text.find('\n', at);
        return end != std::string::npos &&
               m_endpoint.Set(text.substr(at, end - at).c_str() + c_saying.size()) == NX_OK;
    }

    static constexpr std::string_view c_saying = "listening on ";

    const Program& m_program;
    const std::string m_output;
    pid_t m_pid;
    int m_status = 0;
    CNxEndpoint m_endpoint;
};

class Sweep {
public:
    Sweep(const std::filesystem::path& program, const char* shim, const std::string& mode,
          bool isLong)
        : m_isLong(isLong),
          m_program{m_home.Path("bin" / program.filename()),
                    mode == "unix" ? "unix:" + m_home.Path("socket") : "127.0.0.1:0",
                    program.filename() == "echo_server",
                    mode == "tls",
                    m_certificates.Certificate("server"),
                    m_certificates.Key("server")},
          m_plan(OpenPlan(shim)) {
        std::filesystem::create_directories(m_home.Path("bin"));
        std::filesystem::create_directories(m_home.Path("conf"));
        std::filesystem::copy_file(program, m_program.file);
        m_home.Put("conf/kv_server.cfg",
                   "[Trace]\nEnable=TRUE\nkv_server.Info=TRUE\nkv_server.Warning=TRUE\n"
                   "kv_server.Error=TRUE\nkv_server=4096\n");
    }

    // Returns how many went wrong.
    int Run() {
        ForEach("start", [this] { return Start(); });
        ForEach("once", [this] { return Once(); });
        ForEach("a time", [this] { return ForATime(); });
        return m_wrong;
    }

private:
    // All programs started from here on are under the plan; this one calls the shim for it only.
    FaultPlan* OpenPlan(const char* shim) const {
        const std::string nothing(sizeof(FaultPlan), '\0');
        setenv("NX_FAULT_PLAN", m_home.Put("plan", nothing).c_str(), 1);
        setenv("LD_PRELOAD", shim, 1);
        void* const library = dlopen(shim, RTLD_NOW | RTLD_LOCAL);
        return reinterpret_cast<decltype(&nx_fault_plan)>(dlsym(library, "nx_fault_plan"))();
    }

    FaultPlan::Call& GetCall() const { return m_plan->calls[m_fault->call]; }

    // The step makes the runs for one call and error, each with the next number, until it says that
    // there is no more to do.
    template <class Step>
    void ForEach(const char* part, Step step) {
        m_part = part;
        m_injected = 0;
        long runs = 0;
        for (const Fault& fault : c_faults) {
            for (const int error : fault.errors) {
                m_fault = &fault;
                m_error = error;
                m_number = -1;
                // Who relies on edges may be told to wait only where an edge follows.
                bool goesOn =
                    error != EAGAIN || (!m_program.isEcho && fault.call != FaultPlan::CALL_read);
                while (goesOn) {
                    ++runs;
                    ++m_number;
                    goesOn = step();
                    GetCall().count = 0;
                    m_injected += GetCall().failed;
                }
            }
        }
        m_server.reset();
        std::printf("%-7s %5ld runs, %8ld faults, %d wrong\n", part, runs, m_injected, m_wrong);
        std::fflush(stdout);
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
        Server server(m_program, m_home);
        // Where a part of it could not start it ends by itself, maybe while it serves.
        Check((server.Serves() && server.Stop()) || server.HasEndedWith(1),
              "neither serves and stops nor ends with status 1");
        return GoesOn(1000);
    }

    bool GoesOn(int limit) const {
        return GetCall().failed != 0 && m_number + 1 < (m_isLong ? limit : 6);
    }

    Server& GetServer() {
        if (m_server == nullptr || m_isSpoilt || m_server->HasEnded()) {
            m_isSpoilt = false;
            m_server.reset();
            m_server = std::make_unique<Server>(m_program, m_home);
            // It says where it listens before its last thread is there.
            static_cast<void>(m_server->Serves());
            m_descriptors = m_server->CountDescriptors();
            const Client writer = m_server->Connect(1000);
            writer.Send(m_set);
            static_cast<void>(writer.Receive(5));
        }
        return *m_server;
    }

    // Several clients, requests in pieces, replies larger than a socket's buffer.
    void Load(const Server& server, int patience) const {
        const Client writer = server.Connect(patience);
        const Client reader = server.Connect(patience);
        const Client other = server.Connect(patience);
        writer.Send(std::string_view(m_set).substr(0, 100000));
        other.Send("SET a 1 PX 1\r\nINCR n\r\nKEYS *\r\nnonsense\r\n*bad\r\n");
        reader.Send(m_program.isEcho ? m_set : "GET big\r\nGET big\r\n");
        other.Receive(100);
        reader.Receive(2 << 20);
    }

    bool Once() {
        Server& server = GetServer();
        GetCall().Fail(m_error, m_number, 1);
        Load(server, 20);
        Check(server.Serves(), "does not serve");
        CheckDescriptors();
        return GoesOn(20);
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
        Check(server.Serves(), "does not serve afterwards");
        CheckDescriptors();
        if (m_isLong) {
            m_injected += GetCall().failed;
            GetCall().Fail(m_error, 0, LONG_MAX);
            Check(server.Stop(), "does not stop while the calls fail");
        }
        return false;
    }

    void CheckDescriptors() {
        if (m_program.isEcho) {
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
        const milliseconds before = m_server->GetCpuTime();
        std::this_thread::sleep_for(milliseconds(200));
        Check(m_server->GetCpuTime() - before < milliseconds(100), "spins");
    }

    const bool m_isLong;
    const std::string m_set =
        "*3\r\n$3\r\nSET\r\n$3\r\nbig\r\n$1048576\r\n" + std::string(1 << 20, 'v') + "\r\n";
    const CTempFolder m_home;
    const CTestCertificates m_certificates;
    const Program m_program;
    FaultPlan* const m_plan;
    std::unique_ptr<Server> m_server;
    const char* m_part = "";
    const Fault* m_fault = nullptr;
    int m_error = 0;
    long m_number = 0;
    long m_descriptors = 0;
    long m_injected = 0;
    int m_wrong = 0;
    bool m_isSpoilt = false;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: fault_sweep PROGRAM SHIM [--long] [MODE]\n");
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);
    const bool isLong = argc > 3 && std::strcmp(argv[3], "--long") == 0;
    return Sweep(argv[1], argv[2], argv[argc - 1], isLong).Run() == 0 ? 0 : 1;
}
