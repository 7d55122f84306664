// A server program in a process of its own, and a client of it.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <tests/support/Connection.h>
#include <tests/support/Process.h>

#include <chrono>
#include <string>
#include <string_view>
#include <thread>

// Started by the constructor, which waits for the line "...listening on ADDR:PORT".
class ServerProcess : public Process {
public:
    explicit ServerProcess(const std::string& command) : Process(command) {
        const std::string endpoint = ReadEndpoint();
        m_port = static_cast<unsigned short>(std::atoi(&endpoint[endpoint.find(':') + 1]));
        EXPECT_NE(0, m_port) << command;
    }

    unsigned short GetPort() const { return m_port; }

    // The server closes a moment after the client: asked again until it is right.
    void ExpectDescriptors(long expected) const {
        const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (CountDescriptors() != expected && std::chrono::steady_clock::now() < limit) {
            std::this_thread::yield();
        }
        EXPECT_EQ(expected, CountDescriptors());
    }

private:
    unsigned short m_port = 0;
};

// A wait of more than a minute fails the test.
class TestClient : public Connection {
public:
    explicit TestClient(unsigned short port, int receiveBuffer = 0)
        : Connection(port, std::chrono::minutes(1), receiveBuffer) {
        EXPECT_TRUE(IsConnected());
    }

    void Send(std::string_view bytes) const {
        const ssize_t sent = send(GetHandle(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        ASSERT_EQ(static_cast<ssize_t>(bytes.size()), sent);
    }
    void EndSending() const { shutdown(GetHandle(), SHUT_WR); }

    // So many bytes, less when the server hangs up or is silent.
    std::string Receive(size_t size) const {
        std::string bytes(size, '\0');
        const ssize_t got = recv(GetHandle(), bytes.data(), size, MSG_WAITALL);
        bytes.resize(got > 0 ? static_cast<size_t>(got) : 0);
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
};
