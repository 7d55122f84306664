// Programs that run as they are: servers on ports of 127.0.0.1, and what loads them.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "bench.h"

namespace bench {

using Arguments = std::vector<std::string>;

// In the scratch folder.
[[noreturn]] inline void Exec(int cpu, Arguments arguments) {
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

// What a command of the shell says; it has to succeed.
inline std::string ReadOutput(const std::string& command) {
    FILE* const output = popen(command.c_str(), "re");
    Require(output != nullptr, "popen");
    std::string text;
    std::array<char, 4096> buffer{};
    for (size_t got = 0; (got = std::fread(buffer.data(), 1, buffer.size(), output)) > 0;) {
        text.append(buffer.data(), got);
    }
    Require(pclose(output) == 0, command.c_str());
    return text;
}

inline sockaddr_in AddressOf(unsigned short port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

// Bound to that port, any for 0, which then has its number.
inline int Bind(unsigned short& port) {
    sockaddr_in address = AddressOf(port);
    socklen_t length = sizeof(address);
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    Require(bind(fd, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
                getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0,
            "bind");
    port = ntohs(address.sin_port);
    return fd;
}

// A free one.
inline unsigned short FindPort() {
    unsigned short port = 0;
    close(Bind(port));
    return port;
}

// All that the server answers until it hangs up; empty while it does not listen.
inline std::string Ask(unsigned short port, const std::string& question) {
    const sockaddr_in address = AddressOf(port);
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    std::string reply;
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
        Require(send(fd, question.data(), question.size(), MSG_NOSIGNAL) ==
                    static_cast<ssize_t>(question.size()),
                "send");
        std::array<char, 4096> buffer{};
        for (ssize_t got = 0; (got = recv(fd, buffer.data(), buffer.size(), 0)) > 0;) {
            reply.append(buffer.data(), static_cast<size_t>(got));
        }
    }
    close(fd);
    return reply;
}

}  // namespace bench
