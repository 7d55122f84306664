// Children of a test made by fork.
#pragma once

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <utility>

// A forked child that runs `body` and exits with its result.
class Child {
public:
    template <class Body>
    explicit Child(const Body& body) : m_pid(fork()) {
        if (m_pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);  // it does not outlive a test that is killed
            _exit(body());
        }
        EXPECT_GT(m_pid, 0);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child() { Kill(); }

    pid_t GetPid() const { return m_pid; }

    void Kill() {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            Wait();
        }
    }

    // The exit status, or -1.
    int Wait() {
        int status = 0;
        waitpid(std::exchange(m_pid, 0), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    pid_t m_pid;
};

// What is expected there is expected of the child.
template <class Body>
void InChild(const Body& body) {
    Child child([&body] {
        body();
        return ::testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(0, child.Wait());
}
