// A name server on a loopback port, over UDP and TCP, that answers as a test says (RFC 1035).
#pragma once

#include <arpa/inet.h>
#include <nx/foundation/CNxString.h>
#include <nx/net/CNxInetAddr.h>
#include <nx/net/CNxSocket.h>
#include <poll.h>
#include <resolv.h>
#include <sys/socket.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

struct DnsAnswer {
    // The response code, or more than there are: cut off over UDP; of a name that is an alias, for
    // half a minute, of the one that has the addresses.
    enum EKind { GOOD, SERVER_FAILS = 2, NO_NAME = 3, SILENCE = 32, CUT_OFF = 48, ALIAS = 64 };

    std::vector<std::string> addresses;
    std::uint32_t ttl = 60;
    EKind kind = GOOD;
};

class DnsServer {
public:
    DnsServer() {
        // The same port for both: the next one of UDP may be taken for TCP.
        const CNxInetAddr anyPort("127.0.0.1", 0);
        while (m_udp.Open(anyPort) != 0 || m_udp.GetLocalAddr(m_address) != 0 ||
               m_tcp.Open(0, m_address) != 0 || listen(m_tcp.GetHandle(), 16) != 0) {
        }
        m_thread = std::thread([this] { Run(); });
    }
    ~DnsServer() {
        m_stop = true;
        m_thread.join();
    }
    DnsServer(const DnsServer&) = delete;
    DnsServer& operator=(const DnsServer&) = delete;

    CNxString GetText() const { return m_address.GetHostPort(); }

    // Every name has the address 10.0.0.1 unless it is said here.
    void Put(const std::string& name, const DnsAnswer& answer) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_answers.insert_or_assign(name, answer);
    }

    // How many queries for IPv4 addresses of the name have come.
    int CountQueries(const std::string& name) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_queries[name];
    }

    // Reads nothing until it is let go on.
    void Pause(bool isPaused) { m_isPaused = isPaused; }

private:
    void Run() {
        while (!m_stop) {
            pollfd ready[] = {{m_udp.GetHandle(), POLLIN, 0}, {m_tcp.GetHandle(), POLLIN, 0}};
            if (poll(ready, 2, 5) <= 0 || m_isPaused) {
                continue;
            }
            if (ready[0].revents != 0) {
                ServeDatagram();
            }
            if (ready[1].revents != 0) {
                ServeStream();
            }
        }
    }

    void ServeDatagram() {
        CNxInetAddr peer("127.0.0.1", 0);
        socklen_t size = sizeof(sockaddr_in);
        char query[512];
        const ssize_t got =
            recvfrom(m_udp.GetHandle(), query, sizeof(query), 0, peer.GetPtr(), &size);
        const std::string reply = Reply(std::string(query, static_cast<size_t>(got)), true);
        if (!reply.empty()) {
            sendto(m_udp.GetHandle(), reply.data(), reply.size(), 0, peer.GetPtr(), size);
        }
    }

    // As many queries as come over one connection.
    void ServeStream() {
        CNxSocketBase client;
        client.SetHandle(accept4(m_tcp.GetHandle(), nullptr, nullptr, SOCK_CLOEXEC));
        unsigned char length[2];
        while (recv(client.GetHandle(), length, 2, MSG_WAITALL) == 2) {
            std::string query(size_t{length[0]} * 256 + length[1], '\0');
            recv(client.GetHandle(), query.data(), query.size(), MSG_WAITALL);
            const std::string reply = Reply(query, false);
            const std::string message = Number(reply.size(), 2) + reply;
            send(client.GetHandle(), message.data(), message.size(), MSG_NOSIGNAL);
        }
    }

    // "" for silence.
    std::string Reply(const std::string& query, bool isDatagram) {
        char name[256];
        const auto* const bytes = reinterpret_cast<const unsigned char*>(query.data());
        const int nameSize = dn_expand(bytes, bytes + query.size(), bytes + 12, name, sizeof(name));
        const std::string question = query.substr(0, 12 + static_cast<size_t>(nameSize) + 4);
        const int type = question[question.size() - 3];
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (type == c_typeA) {
            ++m_queries[name];
        }
        const auto found = m_answers.find(name);
        const DnsAnswer answer = found != m_answers.end() ? found->second : DnsAnswer{{"10.0.0.1"}};
        const bool isCutOff = isDatagram && answer.kind == DnsAnswer::CUT_OFF;
        return answer.kind == DnsAnswer::SILENCE ? "" : Compose(question, type, answer, isCutOff);
    }

    // The header, the question, the answers.
    static std::string Compose(const std::string& question, int type, const DnsAnswer& answer,
                               bool isCutOff) {
        // A name is a pointer to that of the question, the other one has a label before it.
        std::string owner("\xC0\x0C");
        std::string answers;
        int count = 0;
        const auto add = [&](int ofType, std::uint32_t ttl, const std::string& data) {
            answers += owner + Number(ofType, 2) + Number(1, 2) + Number(ttl, 4) +
                       Number(data.size(), 2) + data;
            ++count;
        };
        if (answer.kind == DnsAnswer::ALIAS) {
            add(c_typeAlias, 30, "\4real" + owner);
            owner = "\4real" + owner;
        }
        for (const std::string& text : answer.addresses) {
            std::string bytes(type == c_typeA ? 4 : 16, '\0');
            const int family = type == c_typeA ? AF_INET : AF_INET6;
            if (!isCutOff && inet_pton(family, text.c_str(), bytes.data()) == 1) {
                add(type, answer.ttl, bytes);
            }
        }
        const int flags = 0x8180 | (isCutOff ? 0x0200 : 0) | answer.kind % 16;
        return question.substr(0, 2) + Number(flags, 2) + Number(1, 2) + Number(count, 2) +
               Number(0, 4) + question.substr(12) + answers;
    }

    template <class Integer>
    static std::string Number(Integer number, int bytes) {
        std::string text;
        for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) {
            text += static_cast<char>(number >> shift);
        }
        return text;
    }

    static constexpr int c_typeA = 1;
    static constexpr int c_typeAlias = 5;

    CNxInetAddr m_address;
    CNxSocketUdp m_udp;
    CNxSocketTcp m_tcp;
    std::atomic<bool> m_stop{false};
    std::atomic<bool> m_isPaused{false};
    std::mutex m_mutex;
    std::map<std::string, DnsAnswer> m_answers;
    std::map<std::string, int> m_queries;
    std::thread m_thread;
};
