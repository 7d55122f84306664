// A server program in a process of its own, and a client of it.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <tests/support/Connection.h>
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

    // Where it says next that it listens, `more` lines further on.
    std::string ReadEndpoint(int more) const {
        std::string line;
        for (; more > 0; --more) {
            line = ReadLine();
        }
        return line.substr(line.rfind(' ') + 1);
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

// A wait of more than a minute fails the test.
class TestClient : public Connection {
public:
    explicit TestClient(unsigned short port, int receiveBuffer = 0)
        : Connection(port, std::chrono::minutes(1), receiveBuffer) {
        EXPECT_TRUE(IsConnected());
    }

    void Send(std::string_view bytes) const { ASSERT_TRUE(TrySend(bytes)); }
    void EndSending() const { shutdown(GetHandle(), SHUT_WR); }

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
};
