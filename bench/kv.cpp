// A whole server, kv_server of the examples, beside redis-server and the least there is, all under
// redis-benchmark: the processor time that the server takes for a request. The server has processor
// 0, the client 1.
#include "bench.h"

#ifdef NXBENCH_REDIS

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <string_view>
#include <thread>
#include <unordered_map>

namespace bench {

namespace {

using Arguments = std::vector<std::string>;

[[noreturn]] void Exec(int cpu, Arguments arguments) {
    PinTo(cpu);
    std::vector<char*> pointers;
    for (std::string& argument : arguments) {
        pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);
    Require(chdir(GetScratchFolder().c_str()) == 0 && execv(pointers[0], pointers.data()) == 0,
            pointers[0]);
    std::abort();
}

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

sockaddr_in AddressOf(unsigned short port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

// Bound to that port, any for 0, which then has its number.
int Bind(unsigned short& port) {
    sockaddr_in address = AddressOf(port);
    socklen_t length = sizeof(address);
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    Require(bind(fd, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
                getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0,
            "bind");
    port = ntohs(address.sin_port);
    return fd;
}

// The servers, in a process of their own.
void RunRaw(unsigned short port) {
    const int listener = Bind(port);
    Require(listen(listener, SOMAXCONN) == 0, "listen");
    PinTo(0);
    RawKv(listener).Run();
}

void RunRedis(unsigned short port) {
    Exec(0, {NXBENCH_REDIS, "--port", std::to_string(port), "--save", "", "--appendonly", "no",
             "--bind", "127.0.0.1"});
}

void RunOurs(unsigned short port) {
    Exec(0, {NXBENCH_KV_SERVER, "--port", std::to_string(port)});
}

// What the server tells about itself; empty while it does not listen.
std::string AskInfo(unsigned short port) {
    const sockaddr_in address = AddressOf(port);
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    std::string reply;
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
        const std::string question = "INFO\r\nQUIT\r\n";
        Require(send(fd, question.data(), question.size(), MSG_NOSIGNAL) ==
                    static_cast<ssize_t>(question.size()),
                "INFO");
        std::array<char, 4096> buffer{};
        for (ssize_t got = 0; (got = recv(fd, buffer.data(), buffer.size(), 0)) > 0;) {
            reply.append(buffer.data(), static_cast<size_t>(got));
        }
    }
    close(fd);
    return reply;
}

long CountCommands(unsigned short port) {
    const std::string info = AskInfo(port);
    const std::string label = "total_commands_processed:";
    const size_t found = info.find(label);
    Require(found != std::string::npos, "INFO does not tell the number of commands");
    return std::atol(info.c_str() + found + label.size());
}

void Load(unsigned short port, const char* command, int pipeline, long requests) {
    const pid_t client = StartProcess([&] {
        Exec(1,
             {NXBENCH_REDIS_LOAD, "-p", std::to_string(port), "-c", "50", "-r", "10000", "-d", "64",
              "-q", "-t", command, "-P", std::to_string(pipeline), "-n", std::to_string(requests)});
    });
    int status = 0;
    Require(waitpid(client, &status, 0) == client && status == 0, "redis-benchmark");
}

double Serve(void (*run)(unsigned short), const char* command, int pipeline) {
    unsigned short port = 0;
    close(Bind(port));  // a free one
    const pid_t server = StartProcess([&] { run(port); });
    while (AskInfo(port).empty()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    Load(port, "SET", 16, Times(50000));  // so that most keys are there
    const long requests = Times(pipeline == 1 ? 30000 : 200000);
    const long commandsBefore = CountCommands(port);
    const double before = CpuTimeInNs(server);
    Load(port, command, pipeline, requests);
    const double after = CpuTimeInNs(server);
    Require(CountCommands(port) >= commandsBefore + requests, "requests are missing");
    EndProcess(server);
    return (after - before) / static_cast<double>(requests);
}

}  // namespace

void AddKv(std::vector<Case>& cases) {
    for (const int pipeline : {1, 16}) {
        for (const std::string command : {"SET", "GET"}) {
            const auto add = [&](const char* row, void (*run)(unsigned short)) {
                cases.push_back({"kv", command + ", pipeline of " + std::to_string(pipeline), row,
                                 0, [=] { return Serve(run, command.c_str(), pipeline); }});
            };
            add("redis-server", RunRedis);
            add("raw", RunRaw);
            add("nxbase kv_server", RunOurs);
        }
    }
}

}  // namespace bench

#else

void bench::AddKv(std::vector<Case>& /*cases*/) {}

#endif
