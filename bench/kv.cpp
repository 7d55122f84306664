// A whole server, kv_server of the examples, beside redis-server and the least there is, all under
// redis-benchmark: the processor time that the server takes for a request. The server has processor
// 0, the client 1.
#include "bench.h"

#ifdef NXBENCH_REDIS

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <string_view>
#include <thread>
#include <unordered_map>

#include "programs.h"

namespace bench {

namespace {

// The least: one thread, an epoll loop and a hash table, and as much of the protocol as is asked
// for here. Who hangs up in the middle of a command, or takes no replies, is not expected.
class RawKv {
public:
    explicit RawKv(int listener) : m_listener(listener) { Watch(listener); }

    [[noreturn]] void Run() {
        std::array<epoll_event, 64> ready{};
        for (;;) {
            const int count = epoll_wait(m_epoll, ready.data(), static_cast<int>(ready.size()), -1);
            for (int i = 0; i < count; ++i) {
                const int fd = ready[static_cast<size_t>(i)].data.fd;
                if (fd == m_listener) {
                    Watch(accept4(fd, nullptr, nullptr, SOCK_CLOEXEC));
                } else {
                    OnInput(fd);
                }
            }
        }
    }

private:
    void Watch(int fd) {
        epoll_event wanted{};
        wanted.events = EPOLLIN;
        wanted.data.fd = fd;
        Require(epoll_ctl(m_epoll, EPOLL_CTL_ADD, fd, &wanted) == 0, "epoll_ctl");
    }

    void OnInput(int fd) {
        std::string& input = m_inputs[fd];
        const ssize_t got = recv(fd, m_buffer.data(), m_buffer.size(), 0);
        if (got <= 0) {
            m_inputs.erase(fd);
            close(fd);
            return;
        }
        input.append(m_buffer.data(), static_cast<size_t>(got));
        std::string_view rest = input;
        m_replies.clear();
        while (ReadCommand(rest)) {
            RunCommand(fd);
        }
        input.erase(0, input.size() - rest.size());
        Require(send(fd, m_replies.data(), m_replies.size(), MSG_NOSIGNAL) ==
                    static_cast<ssize_t>(m_replies.size()),
                "send");
    }

    static bool ReadLine(std::string_view& rest, std::string_view& line) {
        const size_t end = rest.find("\r\n");
        if (end == std::string_view::npos) {
            return false;
        }
        line = rest.substr(0, end);
        rest.remove_prefix(end + 2);
        return true;
    }

    static size_t ToNumber(std::string_view text) {
        size_t number = 0;
        for (const char digit : text) {
            number = number * 10 + static_cast<size_t>(digit - '0');
        }
        return number;
    }

    // Whether there was a whole one: its words are in m_words until the input changes.
    bool ReadCommand(std::string_view& rest) {
        std::string_view from = rest;
        std::string_view line;
        m_words.clear();
        if (!ReadLine(from, line)) {
            return false;
        }
        if (line.empty() || line[0] != '*') {
            m_words.push_back(line);
            rest = from;
            return true;
        }
        for (size_t left = ToNumber(line.substr(1)); left > 0; --left) {
            if (!ReadLine(from, line) || from.size() < ToNumber(line.substr(1)) + 2) {
                return false;
            }
            const size_t size = ToNumber(line.substr(1));
            m_words.push_back(from.substr(0, size));
            from.remove_prefix(size + 2);
        }
        rest = from;
        return true;
    }

    void ReplyBulk(std::string_view text) {
        m_replies += '$' + std::to_string(text.size()) + "\r\n";
        m_replies += text;
        m_replies += "\r\n";
    }

    void RunCommand(int fd) {
        ++m_processed;
        const std::string_view name = m_words[0];
        if (name == "SET") {
            m_values[std::string(m_words[1])] = m_words[2];
            m_replies += "+OK\r\n";
        } else if (name == "GET") {
            const auto found = m_values.find(std::string(m_words[1]));
            found == m_values.end() ? void(m_replies += "$-1\r\n") : ReplyBulk(found->second);
        } else if (name == "INFO") {
            ReplyBulk("total_commands_processed:" + std::to_string(m_processed));
        } else if (name == "CONFIG") {  // GET: redis-benchmark shows what it gets
            m_replies += "*2\r\n";
            ReplyBulk(m_words[2]);
            ReplyBulk("");
        } else {
            m_replies += "+OK\r\n";
            shutdown(fd, SHUT_RD);  // QUIT: read as the end in the next turn
        }
    }

    const int m_epoll = epoll_create1(EPOLL_CLOEXEC);
    const int m_listener;
    std::vector<char> m_buffer = std::vector<char>(65536);
    std::unordered_map<int, std::string> m_inputs;
    std::unordered_map<std::string, std::string> m_values;
    std::vector<std::string_view> m_words;
    std::string m_replies;
    long m_processed = 0;
};

// Where a server listens: `tls` is 0 for one without.
struct Ports {
    unsigned short plain = 0;
    unsigned short tls = 0;
};

constexpr const char* c_certificate = "cert.pem";
constexpr const char* c_key = "key.pem";

// In the scratch folder, for all measurements.
void MakeCertificate() {
    const std::string folder = GetScratchFolder() + '/';
    if (access((folder + c_certificate).c_str(), R_OK) != 0) {
        ReadOutput(
            "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes "
            "-days 2 -subj /CN=localhost -keyout " +
            folder + c_key + " -out " + folder + c_certificate + " 2>/dev/null");
    }
}

// The servers, in a process of their own.
void RunRaw(Ports ports) {
    const int listener = Bind(ports.plain);
    Require(listen(listener, SOMAXCONN) == 0, "listen");
    PinTo(0);
    RawKv(listener).Run();
}

void RunRedis(Ports ports) {
    Arguments arguments = {NXBENCH_REDIS, "--port", std::to_string(ports.plain),
                           "--save",      "",       "--appendonly",
                           "no",          "--bind", "127.0.0.1"};
    if (ports.tls != 0) {
        arguments.insert(arguments.end(),
                         {"--tls-port", std::to_string(ports.tls), "--tls-cert-file", c_certificate,
                          "--tls-key-file", c_key, "--tls-ca-cert-file", c_certificate,
                          "--tls-auth-clients", "no"});
    }
    Exec(0, arguments);
}

void RunOurs(Ports ports) {
    Arguments arguments = {NXBENCH_KV_SERVER, "--port", std::to_string(ports.plain)};
    if (ports.tls != 0) {
        const std::string folder = GetScratchFolder() + '/';
        arguments.insert(arguments.end(), {"--tls-port", std::to_string(ports.tls), "--tls-cert",
                                           folder + c_certificate, "--tls-key", folder + c_key});
    }
    Exec(0, arguments);
}

// What the server tells about itself; empty while it does not listen.
std::string AskInfo(unsigned short port) {
    return Ask(port, "INFO\r\nQUIT\r\n");
}

long CountCommands(unsigned short port) {
    const std::string info = AskInfo(port);
    const std::string label = "total_commands_processed:";
    const size_t found = info.find(label);
    Require(found != std::string::npos, "INFO does not tell the number of commands");
    return std::atol(info.c_str() + found + label.size());
}

void Load(Ports ports, const char* command, int pipeline, long requests) {
    const pid_t client = StartProcess([&] {
        const bool isTls = ports.tls != 0;
        Arguments arguments = {NXBENCH_REDIS_LOAD,
                               "-p",
                               std::to_string(isTls ? ports.tls : ports.plain),
                               "-c",
                               "50",
                               "-r",
                               "10000",
                               "-d",
                               "64",
                               "-q",
                               "-t",
                               command,
                               "-P",
                               std::to_string(pipeline),
                               "-n",
                               std::to_string(requests)};
        if (isTls) {
            arguments.insert(arguments.end(), {"--tls", "--insecure"});
        }
        Exec(1, arguments);
    });
    int status = 0;
    Require(waitpid(client, &status, 0) == client && status == 0, "redis-benchmark");
}

double Serve(void (*run)(Ports), const char* command, int pipeline, bool isTls) {
    Ports ports{FindPort(), 0};
    if (isTls) {
        MakeCertificate();
        ports.tls = FindPort();
    }
    const pid_t server = StartProcess([&] { run(ports); });
    while (AskInfo(ports.plain).empty()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    Load({ports.plain, 0}, "SET", 16, Times(50000));  // so that most keys are there
    const long requests = Times((pipeline == 1 ? 30000 : 200000) / (isTls ? 2 : 1));
    const long commandsBefore = CountCommands(ports.plain);
    const double before = CpuTimeInNs(server);
    Load(ports, command, pipeline, requests);
    const double after = CpuTimeInNs(server);
    Require(CountCommands(ports.plain) >= commandsBefore + requests, "requests are missing");
    EndProcess(server);
    return (after - before) / static_cast<double>(requests);
}

}  // namespace

void AddKv(std::vector<Case>& cases) {
    // Without TLS in the library our server has no such port.
    const bool hasTls =
        ReadOutput(NXBENCH_KV_SERVER " --help").find("--tls-port") != std::string::npos;
    for (const bool isTls : {false, true}) {
        for (const int pipeline : {1, 16}) {
            for (const std::string command : {"SET", "GET"}) {
                const std::string name =
                    command + ", pipeline of " + std::to_string(pipeline) + (isTls ? ", TLS" : "");
                const auto add = [&](const char* row, void (*run)(Ports)) {
                    cases.push_back({"kv", name, row, 0,
                                     [=] { return Serve(run, command.c_str(), pipeline, isTls); }});
                };
                if (!isTls) {
                    add("redis-server", RunRedis);
                    add("raw", RunRaw);
                    add("nxbase kv_server", RunOurs);
                } else if (hasTls) {
                    add("redis-server", RunRedis);
                    add("nxbase kv_server", RunOurs);
                }
            }
        }
    }
}

}  // namespace bench

#else

void bench::AddKv(std::vector<Case>& /*cases*/) {}

#endif
