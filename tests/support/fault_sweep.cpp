// kv_server with every system call failing: fault_sweep KV_SERVER SHIM [--long]
//
// REACTOR is epoll, select or rtsig; epoll without one.
//
// In three parts: each call failing once while it starts and serves nobody yet; each failing once
// under load; each failing for a time under load, then while it stops. After every fault it must
// live and serve (or, at the start, end with a status that says why), and stop in time.
#include <sys/wait.h>
#include <tests/support/Connection.h>
#include <tests/support/FaultFile.h>
#include <tests/support/TempFolder.h>

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

// The server in a home of its own, in which it traces.
class Server {
public:
    Server(const std::string& program, const CTempFolder& home) : m_output(home.Path("output")) {
        std::filesystem::remove(m_output);
        m_pid = fork();
        if (m_pid == 0) {
            const int out = open(m_output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
            dup2(out, STDOUT_FILENO);
            dup2(out, STDERR_FILENO);
            execl(program.c_str(), program.c_str(), "--port=0", nullptr);
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
            const Connection client(m_port, milliseconds(500));
            client.TrySend("PING\r\n");
            return HasEnded() || client.Receive(7).size() == 7;
        };
        return WaitUntil(c_recoverLimit, answers) && !HasEnded();
    }

    // Whether it ended well and in time.
    bool Stop() {
        kill(m_pid, SIGTERM);
        return WaitUntil(c_stopLimit, [&] { return HasEnded(); }) && HasEndedWith(0);
    }

private:
    bool ReadPort(const CTempFolder& home) {
        const std::string text = home.Get("output");
        const size_t at = text.find("listening on 127.0.0.1:");
        if (at != std::string::npos && text.find('\n', at) != std::string::npos) {
            m_port = static_cast<unsigned short>(std::atoi(text.c_str() + at + 23));
        }
        return m_port != 0;
    }

    const std::string m_output;
    pid_t m_pid = 0;
    int m_status = 0;
    unsigned short m_port = 0;
    bool m_isStuck = false;
};

class Sweep {
public:
    Sweep(const std::string& program, const char* shim, bool isLong)
        : m_isLong(isLong), m_faults(m_home.Path("plan"), shim) {
        std::filesystem::create_directories(m_home.Path("bin"));
        std::filesystem::create_directories(m_home.Path("conf"));
        std::filesystem::copy_file(program, m_program);
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
                bool goesOn = true;
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
            const Connection writer(m_server->GetPort(), milliseconds(1000));
            static_cast<void>(writer.TrySend(m_set) && writer.Receive(5).empty());
        }
        return *m_server;
    }

    // Several clients, requests in pieces, replies larger than a socket's buffer.
    void Load(milliseconds patience) {
        const unsigned short port = GetServer().GetPort();
        const Connection writer(port, patience);
        const Connection reader(port, patience);
        const Connection other(port, patience);
        writer.TrySend(m_set.substr(0, 100000));
        other.TrySend("SET a 1 PX 1\r\nINCR n\r\nKEYS *\r\nnonsense\r\n*bad\r\n");
        reader.TrySend("GET big\r\nGET big\r\n");
        other.Receive(100);
        reader.Receive(2 << 20);
    }

    bool Once() {
        Server& server = GetServer();
        m_faults.Fail(m_fault->call, m_error, m_number, 1);
        Load(milliseconds(20));
        Check(server.Serves(), "does not serve");
        return WasInjected() && m_number + 1 < (m_isLong ? 20 : 6);
    }

    bool ForATime() {
        const auto end = Clock::now() + milliseconds(m_isLong ? 3000 : 30);
        Server& server = GetServer();
        m_faults.FailAll(m_fault->call, m_error);
        do {
            Load(milliseconds(10));
        } while (Clock::now() < end && !server.HasEnded());
        m_faults.Clear();
        Check(server.Serves(), "does not serve afterwards");
        if (m_isLong && m_server != nullptr) {
            m_injected += m_faults.GetFailed(m_fault->call);
            m_faults.FailAll(m_fault->call, m_error);
            Check(m_server->Stop(), "does not stop while the calls fail");
            m_faults.Clear();
        }
        return false;
    }

    const bool m_isLong;
    const std::string m_set =
        "*3\r\n$3\r\nSET\r\n$3\r\nbig\r\n$1048576\r\n" + std::string(1 << 20, 'v') + "\r\n";
    const CTempFolder m_home;
    const std::string m_program = m_home.Path("bin/kv_server");
    const FaultFile m_faults;
    std::unique_ptr<Server> m_server;
    const char* m_part = "";
    const Fault* m_fault = nullptr;
    int m_error = 0;
    long m_number = 0;
    long m_runs = 0;
    long m_injected = 0;
    int m_wrong = 0;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: fault_sweep KV_SERVER SHIM [--long]\n");
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);
    const bool isLong = argc > 3 && std::strcmp(argv[3], "--long") == 0;
    Sweep sweep(argv[1], argv[2], isLong);
    return sweep.Run() == 0 ? 0 : 1;
}
