// kv_server with every system call failing: fault_sweep KV_SERVER SHIM [--long] [REACTOR]
//
// REACTOR is epoll, select or rtsig; epoll without one.
//
// In three parts: each call failing once while it starts and serves nobody yet; each failing once
// under load; each failing for a time under load, then while it stops. After every fault it must
// live and serve (or, at the start, end with a status that says why), and stop in time.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
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
    FaultPlan::ECall call;
    std::vector<int> errors;
};

#define NX_FAULT_TEXT(name) #name,
constexpr const char* c_callNames[] = {NX_FAULT_CALLS(NX_FAULT_TEXT)};
#undef NX_FAULT_TEXT

// What the manual pages allow, without what only a wrong argument makes (EBADF, EFAULT, EINVAL).
const std::vector<Fault>& GetFaults() {
    static const std::vector<Fault> s_faults{
        {FaultPlan::CALL_accept4,
         {EAGAIN, ECONNABORTED, EINTR, EMFILE, ENFILE, ENOBUFS, ENOMEM, EPERM, EPROTO}},
        {FaultPlan::CALL_bind, {EACCES, EADDRINUSE, ENOMEM}},
        {FaultPlan::CALL_close, {EINTR, EIO}},
        {FaultPlan::CALL_epoll_create1, {EMFILE, ENFILE, ENOMEM}},
        {FaultPlan::CALL_epoll_ctl, {ENOMEM, ENOSPC}},
        {FaultPlan::CALL_epoll_wait, {EINTR}},
        {FaultPlan::CALL_eventfd, {EMFILE, ENFILE, ENODEV, ENOMEM}},
        {FaultPlan::CALL_fchmod, {EPERM, EIO, EROFS}},
        {FaultPlan::CALL_fcntl, {EACCES, EAGAIN, EINTR, ENOLCK}},
        {FaultPlan::CALL_flock, {EINTR, ENOLCK, EWOULDBLOCK}},
        {FaultPlan::CALL_fopen, {EACCES, EMFILE, ENFILE, ENOMEM, ENOENT}},
        {FaultPlan::CALL_fstat, {ENOMEM, EOVERFLOW}},
        {FaultPlan::CALL_ftruncate, {EFBIG, EINTR, EIO}},
        {FaultPlan::CALL_getpeername, {ENOBUFS, ENOTCONN}},
        {FaultPlan::CALL_getrandom, {EAGAIN, EINTR, ENOSYS}},
        {FaultPlan::CALL_getrlimit, {EPERM}},
        {FaultPlan::CALL_getsockname, {ENOBUFS}},
        {FaultPlan::CALL_getsockopt, {ENOPROTOOPT}},
        {FaultPlan::CALL_ioctl, {ENOTTY}},
        {FaultPlan::CALL_listen, {EADDRINUSE}},
        {FaultPlan::CALL_mkdir, {EACCES, EEXIST, EMLINK, ENOSPC, EROFS}},
        {FaultPlan::CALL_mmap, {ENOMEM, EAGAIN, ENFILE}},
        {FaultPlan::CALL_nanosleep, {EINTR}},
        {FaultPlan::CALL_open, {EACCES, EINTR, EMFILE, ENFILE, ENOSPC, ENOMEM, EROFS}},
        {FaultPlan::CALL_pipe2, {EMFILE, ENFILE}},
        {FaultPlan::CALL_poll, {EINTR, ENOMEM}},
        {FaultPlan::CALL_pread, {EINTR, EIO}},
        {FaultPlan::CALL_pthread_create, {EAGAIN, EPERM}},
        {FaultPlan::CALL_pthread_sigqueue, {EAGAIN}},
        {FaultPlan::CALL_pwritev, {EDQUOT, EFBIG, EINTR, EIO, ENOSPC}},
        {FaultPlan::CALL_read, {EAGAIN, EINTR, EIO}},
        {FaultPlan::CALL_readlink, {EACCES, EIO, ENOENT}},
        {FaultPlan::CALL_recv, {EAGAIN, ECONNRESET, EINTR, ENOBUFS, ENOMEM}},
        {FaultPlan::CALL_select, {EINTR, ENOMEM}},
        {FaultPlan::CALL_send, {EAGAIN, ECONNRESET, EINTR, ENOBUFS, ENOMEM, EPIPE}},
        {FaultPlan::CALL_sendmsg, {EAGAIN, ECONNRESET, EINTR, ENOBUFS, ENOMEM, EPIPE}},
        {FaultPlan::CALL_sendto, {EAGAIN, ECONNRESET, EINTR, ENOBUFS, ENOMEM, EPIPE}},
        {FaultPlan::CALL_setrlimit, {EPERM}},
        {FaultPlan::CALL_setsockopt, {ENOPROTOOPT, ENOMEM}},
        {FaultPlan::CALL_shutdown, {ENOTCONN}},
        {FaultPlan::CALL_sigtimedwait, {EAGAIN, EINTR}},
        {FaultPlan::CALL_sigwait, {EINTR}},
        {FaultPlan::CALL_socket, {EACCES, EMFILE, ENFILE, ENOBUFS, ENOMEM}},
        {FaultPlan::CALL_socketpair, {EMFILE, ENFILE, EOPNOTSUPP}},
        {FaultPlan::CALL_stat, {EACCES, ENOENT, ENOMEM}},
        {FaultPlan::CALL_write, {EAGAIN, EINTR, EIO, ENOSPC, EPIPE}},
        {FaultPlan::CALL_writev, {EAGAIN, EINTR, EIO, ENOSPC, EPIPE}},
    };
    return s_faults;
}

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

// A client that takes failures as they come.
class Client {
public:
    explicit Client(unsigned short port)
        : m_socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        static_cast<void>(
            connect(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
    }
    ~Client() { close(m_socket); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    void Send(const std::string& request) const {
        static_cast<void>(
            send(m_socket, request.data(), request.size(), MSG_NOSIGNAL | MSG_DONTWAIT));
    }

    // Whether all of it came in time.
    bool Receive(std::size_t size, milliseconds limit) const {
        const auto end = Clock::now() + limit;
        char buffer[65536];
        while (size > 0) {
            const auto left = std::chrono::duration_cast<milliseconds>(end - Clock::now()).count();
            pollfd input{m_socket, POLLIN, 0};
            if (left < 0 || poll(&input, 1, static_cast<int>(left) + 1) != 1) {
                return false;
            }
            const ssize_t got = recv(m_socket, buffer, std::min(size, sizeof(buffer)), 0);
            if (got <= 0) {
                return false;
            }
            size -= static_cast<std::size_t>(got);
        }
        return true;
    }

private:
    int m_socket;
};

// The server in a home of its own, in which it traces.
class Server {
public:
    Server(const std::string& program, const std::string& reactor, const CTempFolder& home)
        : m_output(home.Path("output")) {
        std::filesystem::remove(m_output);
        m_pid = fork();
        if (m_pid == 0) {
            const int out = open(m_output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
            dup2(out, STDOUT_FILENO);
            dup2(out, STDERR_FILENO);
            execl(program.c_str(), program.c_str(), "--port=0", "--reactor", reactor.c_str(),
                  nullptr);
            _exit(127);
        }
        if (!WaitUntil(c_recoverLimit, [&] { return HasEnded() || ReadPort(home); })) {
            m_isStuck = true;
        }
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
    bool HasCrashed() const { return m_pid == 0 && !WIFEXITED(m_status); }
    int GetStatus() const { return WEXITSTATUS(m_status); }

    bool Serves(milliseconds limit = c_recoverLimit) {
        return WaitUntil(limit,
                         [&] {
                             const Client client(m_port);
                             client.Send("PING\r\n");
                             return HasEnded() || client.Receive(7, milliseconds(500));
                         }) &&
               !HasEnded();
    }

    // Whether it ended well and in time.
    bool Stop() {
        kill(m_pid, SIGTERM);
        return WaitUntil(c_stopLimit, [&] { return HasEnded(); }) && !HasCrashed() &&
               GetStatus() == 0;
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
    Sweep(const std::string& program, const char* shim, std::string reactor, bool isLong)
        : m_reactor(std::move(reactor)), m_isLong(isLong), m_faults(m_home.Path("plan"), shim) {
        std::filesystem::create_directories(m_home.Path("bin"));
        std::filesystem::create_directories(m_home.Path("conf"));
        std::filesystem::copy_file(program, m_program);
        m_home.Put("conf/kv_server.cfg",
                   "[Trace]\nEnable=TRUE\nkv_server.Info=TRUE\nkv_server.Warning=TRUE\n"
                   "kv_server.Error=TRUE\nkv_server=4096\n");
    }

    // Returns how many went wrong.
    int Run() {
        ForEach("start", [this](FaultPlan::ECall call, int error) { Start(call, error); });
        ForEach("once", [this](FaultPlan::ECall call, int error) { Once(call, error); });
        ForEach("a time", [this](FaultPlan::ECall call, int error) { ForATime(call, error); });
        std::printf("%ld faults injected in %ld runs, %d wrong\n", m_injected, m_runs, m_wrong);
        return m_wrong;
    }

private:
    template <class Step>
    void ForEach(const char* part, Step step) {
        m_part = part;
        const auto begin = Clock::now();
        const long injectedBefore = m_injected;
        const long runsBefore = m_runs;
        for (const Fault& fault : GetFaults()) {
            for (const int error : fault.errors) {
                step(fault.call, error);
            }
        }
        m_server.reset();
        std::printf("%-7s %5ld runs, %8ld faults, %.1f s\n", part, m_runs - runsBefore,
                    m_injected - injectedBefore,
                    std::chrono::duration<double>(Clock::now() - begin).count());
        std::fflush(stdout);
    }

    void Check(bool isRight, FaultPlan::ECall call, int error, long number, const char* what) {
        if (!isRight) {
            ++m_wrong;
            std::printf("WRONG: %s: %s %s, number %ld: %s\n", m_part, c_callNames[call],
                        strerrorname_np(error), number, what);
            std::fflush(stdout);
            m_server.reset();
        }
    }

    // Every N-th call from the start to the first PING.
    void Start(FaultPlan::ECall call, int error) {
        const long most = m_isLong ? 1000 : 6;
        for (long number = 0; number < most; ++number) {
            m_faults.Fail(call, error, number, 1);
            Server server(m_program, m_reactor, m_home);
            Check(!server.IsStuck(), call, error, number, "neither serves nor ends");
            if (server.HasEnded()) {
                Check(!server.HasCrashed() && server.GetStatus() == 1, call, error, number,
                      "crashed or ended with another status than 1");
            } else if (!server.IsStuck()) {
                // It may also end after it has said where it listens.
                Check(server.Serves() || (server.HasEnded() && server.GetStatus() == 1), call,
                      error, number, "does not serve");
                // Where a part of it could not start, it is on its way to its end already.
                Check(server.HasEnded() || server.Stop() ||
                          (server.HasEnded() && !server.HasCrashed() && server.GetStatus() == 1),
                      call, error, number, "does not stop");
            }
            ++m_runs;
            m_injected += m_faults.GetFailed();
            if (m_faults.GetFailed() == 0) {
                return;
            }
        }
    }

    Server& GetServer() {
        if (m_server == nullptr || m_server->HasEnded()) {
            m_faults.Clear();
            m_server = std::make_unique<Server>(m_program, m_reactor, m_home);
            // It says where it listens before its last thread is there.
            static_cast<void>(m_server->Serves());
        }
        return *m_server;
    }

    // Several clients, requests in pieces, replies larger than a socket's buffer.
    void Load(milliseconds patience) {
        static const std::string s_value(1 << 20, 'v');
        static const std::string s_set =
            "*3\r\n$3\r\nSET\r\n$3\r\nbig\r\n$1048576\r\n" + s_value + "\r\n";
        const Client writer(GetServer().GetPort());
        const Client reader(GetServer().GetPort());
        const Client other(GetServer().GetPort());
        writer.Send(s_set.substr(0, 100000));
        other.Send("SET a 1 PX 1\r\nINCR n\r\nKEYS *\r\nnonsense\r\n*bad\r\n");
        reader.Send("GET big\r\nGET big\r\n");
        static_cast<void>(other.Receive(100, patience));
        static_cast<void>(reader.Receive(2 << 20, patience));
    }

    void Once(FaultPlan::ECall call, int error) {
        const long most = m_isLong ? 20 : 6;
        for (long number = 0; number < most; ++number) {
            Server& server = GetServer();
            m_faults.Fail(call, error, number, 1);
            Load(milliseconds(20));
            ++m_runs;
            m_injected += m_faults.GetFailed();
            Check(server.Serves(), call, error, number, "does not serve");
            if (m_faults.GetFailed() == 0) {
                return;
            }
        }
    }

    void ForATime(FaultPlan::ECall call, int error) {
        const auto end = Clock::now() + milliseconds(m_isLong ? 3000 : 30);
        Server& server = GetServer();
        m_faults.FailAll(call, error);
        do {
            Load(milliseconds(10));
        } while (Clock::now() < end && !server.HasEnded());
        const long failed = m_faults.GetFailed();
        m_faults.Clear();
        ++m_runs;
        m_injected += failed;
        Check(server.Serves(), call, error, failed, "does not serve afterwards");
        if (m_isLong && m_server != nullptr) {
            m_faults.FailAll(call, error);
            Check(m_server->Stop(), call, error, failed, "does not stop while the calls fail");
            m_faults.Clear();
        }
    }

    const std::string m_reactor;
    const bool m_isLong;
    const CTempFolder m_home;
    const std::string m_program = m_home.Path("bin/kv_server");
    const FaultFile m_faults;
    std::unique_ptr<Server> m_server;
    const char* m_part = "";
    long m_runs = 0;
    long m_injected = 0;
    int m_wrong = 0;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: fault_sweep KV_SERVER SHIM [--long] [REACTOR]\n");
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);
    const bool isLong = argc > 3 && std::strcmp(argv[3], "--long") == 0;
    const int at = isLong ? 4 : 3;
    Sweep sweep(argv[1], argv[2], argc > at ? argv[at] : "epoll", isLong);
    return sweep.Run() == 0 ? 0 : 1;
}
