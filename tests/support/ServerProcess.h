// A server program in a process of its own, and a client of it.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

// Started by the constructor, which waits for the line "...listening on ADDR:PORT"; killed when the
// test forgot it.
class ServerProcess {
public:
    explicit ServerProcess(const std::string& program, std::vector<std::string> arguments = {}) {
        arguments.insert(arguments.begin(), program);
        int output[2];
        if (pipe2(output, O_CLOEXEC) != 0) {
            ADD_FAILURE() << "no pipe";
            return;
        }
        m_pid = fork();
        if (m_pid == 0) {
            dup2(output[1], STDOUT_FILENO);
            std::vector<char*> argv;
            for (std::string& argument : arguments) {
                argv.push_back(argument.data());
            }
            argv.push_back(nullptr);
            execv(argv[0], argv.data());
            _exit(127);
        }
        close(output[1]);
        m_output = output[0];
        std::string line = "...";
        while (!line.empty() && line.find("listening on ") == std::string::npos) {
            line = ReadLine();
        }
        m_port = static_cast<unsigned short>(std::atoi(line.c_str() + line.rfind(':') + 1));
        EXPECT_NE(0, m_port) << line;
    }
    ~ServerProcess() {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
        close(m_output);
    }
    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;

    pid_t GetPid() const { return m_pid; }
    unsigned short GetPort() const { return m_port; }

    long CountDescriptors() const {
        const std::filesystem::path folder = "/proc/" + std::to_string(m_pid) + "/fd";
        return std::distance(std::filesystem::directory_iterator(folder), {});
    }

    // The server closes a moment after the client: asked again until it is right.
    void ExpectDescriptors(long expected) const {
        const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (CountDescriptors() != expected && std::chrono::steady_clock::now() < limit) {
            std::this_thread::yield();
        }
        EXPECT_EQ(expected, CountDescriptors());
    }

    void Signal(int signo) const { kill(m_pid, signo); }

    // The exit status, -1 for another end.
    int Wait() {
        int status = 0;
        waitpid(std::exchange(m_pid, 0), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    std::string ReadLine() const {
        std::string line;
        char c = 0;
        while (read(m_output, &c, 1) == 1 && c != '\n') {
            line += c;
        }
        return line;
    }

    pid_t m_pid = 0;
    int m_output = -1;
    unsigned short m_port = 0;
};

// A blocking connection; a wait of more than a minute fails the test.
class TestClient {
public:
    explicit TestClient(unsigned short port, int receiveBuffer = 0)
        : m_socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        if (receiveBuffer != 0) {
            setsockopt(m_socket, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof(receiveBuffer));
        }
        const timeval limit{60, 0};
        setsockopt(m_socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(0, connect(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
    }
    TestClient(TestClient&& other) noexcept : m_socket(std::exchange(other.m_socket, -1)) {}
    TestClient& operator=(TestClient&&) = delete;
    ~TestClient() { close(m_socket); }

    int GetHandle() const { return m_socket; }

    void Send(std::string_view bytes) const {
        ASSERT_EQ(static_cast<ssize_t>(bytes.size()),
                  send(m_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL));
    }
    void EndSending() const { shutdown(m_socket, SHUT_WR); }

    // So many bytes, less when the server hangs up.
    std::string Receive(size_t size) const {
        std::string bytes(size, '\0');
        size_t got = 0;
        while (got < size) {
            const ssize_t received = recv(m_socket, bytes.data() + got, size - got, 0);
            if (received <= 0) {
                break;
            }
            got += static_cast<size_t>(received);
        }
        bytes.resize(got);
        return bytes;
    }

    // All until the server hangs up.
    std::string ReceiveAll() const {
        std::string all;
        for (std::string bytes = Receive(65536); !bytes.empty(); bytes = Receive(65536)) {
            all += bytes;
        }
        return all;
    }

    // Sends, and expects exactly this answer.
    void Expect(std::string_view request, std::string_view answer) const {
        Send(request);
        EXPECT_EQ(answer, Receive(answer.size())) << request.substr(0, 80);
    }

private:
    int m_socket;
};
