// A whole server, kv_server of the examples, beside redis-server, both under redis-benchmark: the
// processor time that the server takes for a request. The server has processor 0, the client 1.
#include "bench.h"

#ifdef NXBENCH_REDIS

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdlib>
#include <thread>

namespace bench {

namespace {

using Arguments = std::vector<std::string>;

// Replaces the process; what the program prints is not shown.
[[noreturn]] void Exec(int cpu, Arguments arguments) {
    PinTo(cpu);
    std::vector<char*> pointers;
    for (std::string& argument : arguments) {
        pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    Require(dup2(nowhere, STDOUT_FILENO) != -1 && chdir(GetScratchFolder().c_str()) == 0 &&
                execv(pointers[0], pointers.data()) == 0,
            pointers[0]);
    std::abort();
}

sockaddr_in AddressOf(unsigned short port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

unsigned short FindFreePort() {
    sockaddr_in address = AddressOf(0);
    socklen_t length = sizeof(address);
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    Require(bind(fd, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
                getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0,
            "find a port");
    close(fd);
    return ntohs(address.sin_port);
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
        char buffer[4096];
        for (ssize_t got = 0; (got = recv(fd, buffer, sizeof(buffer), 0)) > 0;) {
            reply.append(buffer, static_cast<size_t>(got));
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

double Serve(const Arguments& program, const char* command, int pipeline) {
    const unsigned short port = FindFreePort();
    const pid_t server = StartProcess([&] {
        Arguments arguments = program;
        arguments.insert(arguments.begin() + 1, {"--port", std::to_string(port)});
        Exec(0, arguments);
    });
    while (AskInfo(port).empty()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    Load(port, "set", 16, Times(50000));  // so that most keys are there
    const long requests = Times(pipeline == 1 ? 30000 : 200000);
    const long commandsBefore = CountCommands(port);
    const double before = CpuTimeInNs(server);
    Load(port, command, pipeline, requests);
    const double after = CpuTimeInNs(server);
    Require(CountCommands(port) >= commandsBefore + requests, "requests are missing");
    EndProcess(server);
    return (after - before) / static_cast<double>(requests);
}

void AddRow(std::vector<Case>& cases, const char* row, const Arguments& program,
            const char* command, int pipeline) {
    const std::string name = (command == std::string("set") ? "SET" : "GET") +
                             std::string(", pipeline of ") + std::to_string(pipeline);
    cases.push_back({"kv", name, row, 0, [=] { return Serve(program, command, pipeline); }});
}

}  // namespace

void AddKv(std::vector<Case>& cases) {
    for (const int pipeline : {1, 16}) {
        for (const char* const command : {"set", "get"}) {
            AddRow(cases, "redis-server",
                   {NXBENCH_REDIS, "--save", "", "--appendonly", "no", "--bind", "127.0.0.1"},
                   command, pipeline);
            AddRow(cases, "nxbase kv_server", {NXBENCH_KV_SERVER}, command, pipeline);
        }
    }
}

}  // namespace bench

#else

void bench::AddKv(std::vector<Case>& /*cases*/) {}

#endif
