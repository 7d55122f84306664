// A program in a process of its own.
#pragma once

#include <poll.h>
#include <sys/wait.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

// Runs a command of the shell, and takes what it prints line by line. Killed when it has not ended.
class Process {
public:
    // The shell says its process id, and becomes the program.
    explicit Process(const std::string& command)
        : m_output(popen(("echo $$; exec " + command).c_str(), "re")) {
        std::setbuf(m_output, nullptr);
        m_pid = std::atoi(ReadLine().c_str());
    }
    ~Process() {
        if (!HasEnded()) {
            Signal(SIGKILL);
        }
        pclose(m_output);
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    pid_t GetPid() const { return m_pid; }
    void Signal(int signo) const { kill(m_pid, signo); }

    bool HasEnded() {
        m_hasEnded = m_hasEnded || waitpid(m_pid, &m_status, WNOHANG) == m_pid;
        return m_hasEnded;
    }

    // The exit status, -1 for another end.
    int Wait() {
        m_hasEnded = m_hasEnded || waitpid(m_pid, &m_status, 0) == m_pid;
        return WIFEXITED(m_status) ? WEXITSTATUS(m_status) : -1;
    }

    // "" when it has ended, or is silent for a minute.
    std::string ReadLine() const {
        pollfd ready{fileno(m_output), POLLIN, 0};
        std::string line;
        for (int c = 0;
             poll(&ready, 1, 60000) == 1 && (c = std::fgetc(m_output)) != EOF && c != '\n';) {
            line += static_cast<char>(c);
        }
        return line;
    }

    // Of a server: where it says next that it listens, "" when it does not.
    std::string ReadEndpoint() const {
        size_t at = std::string::npos;
        std::string line = ReadLine();
        while (!line.empty() && (at = line.find("listening on ")) == std::string::npos) {
            line = ReadLine();
        }
        return line.empty() ? line : line.substr(at + 13);
    }

    long CountDescriptors() const {
        std::error_code error;
        const std::string folder = "/proc/" + std::to_string(m_pid) + "/fd";
        return std::distance(std::filesystem::directory_iterator(folder, error), {});
    }

private:
    FILE* const m_output;
    pid_t m_pid = 0;
    int m_status = 0;
    bool m_hasEnded = false;
};
