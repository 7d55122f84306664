// A name server on a loopback port, over UDP and TCP, that answers as a test says (RFC 1035).
#pragma once

#include <arpa/inet.h>
#include <nx/foundation/CNxString.h>
#include <nx/net/CNxInetAddr.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <utility>
#include <vector>

struct DnsAnswer {
    enum EKind { GOOD, NO_NAME, SERVER_FAILS, GARBAGE, SILENCE };

    DnsAnswer(EKind aKind) : kind(aKind) {}
    DnsAnswer(std::vector<std::string> ofEitherFamily, std::uint32_t aTtl = 60)
        : addresses(std::move(ofEitherFamily)), ttl(aTtl) {}

    EKind kind = GOOD;
    std::vector<std::string> addresses;
    std::uint32_t ttl = 60;
    std::string alias;  // the name that has the answer
    std::uint32_t aliasTtl = 60;
    bool isCutOff = false;  // over UDP
};

class DnsServer {
public:
    static constexpr int c_typeA = 1;
    static constexpr int c_typeAlias = 5;
    static constexpr int c_typeAaaa = 28;

    DnsServer() {
        // The same port for both: the next one of UDP may be taken for TCP.
        do {
            CloseSockets();
            m_port = 0;
            m_udp = Open(SOCK_DGRAM);
            m_tcp = Open(SOCK_STREAM);
        } while (m_port == 0 || listen(m_tcp, 16) != 0);
        m_thread = std::thread([this] { Run(); });
    }
    ~DnsServer() {
        m_stop = true;
        m_thread.join();
        CloseSockets();
    }
    DnsServer(const DnsServer&) = delete;
    DnsServer& operator=(const DnsServer&) = delete;

    CNxString GetText() const { return CNxString(("127.0.0.1:" + std::to_string(m_port)).c_str()); }

    void Put(const std::string& name, const DnsAnswer& answer) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_answers.insert_or_assign(name, answer);
    }

    // How many queries for IPv4 addresses of the name have come; of any name for "".
    int CountQueries(const std::string& name = "") {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_queries[name];
    }

    // Reads nothing until it is let go on.
    void Pause(bool isPaused) { m_isPaused = isPaused; }

private:
    int Open(int type) {
        const int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(m_port);
        if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
            m_port = 0;
            return fd;
        }
        socklen_t size = sizeof(address);
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
        m_port = ntohs(address.sin_port);
        return fd;
    }
    void CloseSockets() {
        for (const int fd : {m_udp, m_tcp}) {
            if (fd != -1) {
                close(fd);
            }
        }
    }

    void Run() {
        while (!m_stop) {
            pollfd ready[] = {{m_udp, POLLIN, 0}, {m_tcp, POLLIN, 0}};
            if (poll(ready, 2, 5) <= 0 || m_isPaused) {
                continue;
            }
            try {
                if (ready[0].revents != 0) {
                    ServeDatagrams();
                }
                if (ready[1].revents != 0) {
                    ServeStream();
                }
            } catch (const std::bad_alloc&) {
                // A test has it fail. The query is lost.
            }
        }
    }

    void ServeDatagrams() {
        sockaddr_in from{};
        auto* const peer = reinterpret_cast<sockaddr*>(&from);
        socklen_t size = sizeof(from);
        char query[512];
        ssize_t got = 0;
        while ((got = recvfrom(m_udp, query, sizeof(query), MSG_DONTWAIT, peer, &size)) > 0) {
            const std::string reply = Reply(std::string(query, static_cast<size_t>(got)), true);
            if (!reply.empty()) {
                sendto(m_udp, reply.data(), reply.size(), 0, peer, size);
            }
        }
    }

    // As many queries as come over one connection.
    void ServeStream() {
        const int fd = accept4(m_tcp, nullptr, nullptr, SOCK_CLOEXEC);
        unsigned char length[2];
        while (recv(fd, length, 2, MSG_WAITALL) == 2) {
            std::string query(size_t{length[0]} * 256 + length[1], '\0');
            if (recv(fd, query.data(), query.size(), MSG_WAITALL) <= 0) {
                break;
            }
            std::string reply = Reply(query, false);
            reply.insert(0, Number(reply.size(), 2));
            send(fd, reply.data(), reply.size(), MSG_NOSIGNAL);
        }
        close(fd);
    }

    static std::string Number(std::uint64_t number, int bytes) {
        std::string text;
        for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) {
            text += static_cast<char>(number >> shift);
        }
        return text;
    }

    static std::string ToWire(const std::string& name) {
        std::string wire;
        for (size_t begin = 0; begin < name.size();) {
            const size_t end = std::min(name.find('.', begin), name.size());
            wire += Number(end - begin, 1) + name.substr(begin, end - begin);
            begin = end + 1;
        }
        return wire + '\0';
    }

    static std::string Resource(const std::string& name, int type, std::uint32_t ttl,
                                const std::string& data) {
        return ToWire(name) + Number(static_cast<std::uint64_t>(type), 2) + Number(1, 2) +
               Number(ttl, 4) + Number(data.size(), 2) + data;
    }

    // "" for silence.
    std::string Reply(const std::string& query, bool isDatagram) {
        std::string name;
        size_t at = 12;
        while (query[at] != 0) {
            const auto length = static_cast<size_t>(query[at]);
            name += (name.empty() ? "" : ".") + query.substr(at + 1, length);
            at += length + 1;
        }
        const int type = query[at + 2];
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (type == c_typeA) {
            ++m_queries[name];
            ++m_queries[""];
        }
        const auto found = m_answers.find(name);
        DnsAnswer answer(DnsAnswer::NO_NAME);
        if (found != m_answers.end()) {
            answer = found->second;
        }
        if (answer.kind == DnsAnswer::SILENCE) {
            return {};
        }
        return Compose(query.substr(0, at + 5), name, type, answer, isDatagram);
    }

    static std::string Compose(const std::string& question, const std::string& name, int type,
                               const DnsAnswer& answer, bool isDatagram) {
        std::string resources;
        int count = 0;
        const bool isCutOff = isDatagram && answer.isCutOff;
        if (!answer.alias.empty()) {
            resources += Resource(name, c_typeAlias, answer.aliasTtl, ToWire(answer.alias));
            ++count;
        }
        for (const std::string& text : answer.addresses) {
            char bytes[16];
            const bool isV6 = text.find(':') != std::string::npos;
            inet_pton(isV6 ? AF_INET6 : AF_INET, text.c_str(), bytes);
            if (!isCutOff && isV6 == (type == c_typeAaaa)) {
                resources += Resource(answer.alias.empty() ? name : answer.alias, type, answer.ttl,
                                      std::string(bytes, isV6 ? 16 : 4));
                ++count;
            }
        }
        if (answer.kind == DnsAnswer::GARBAGE) {
            resources.assign(40, '\xc7');
            count = 3;
        }
        int code = answer.kind == DnsAnswer::NO_NAME ? 3 : 0;
        code = answer.kind == DnsAnswer::SERVER_FAILS ? 2 : code;
        const int flags = 0x8180 | (isCutOff ? 0x0200 : 0) | code;
        return question.substr(0, 2) + Number(static_cast<std::uint64_t>(flags), 2) + Number(1, 2) +
               Number(static_cast<std::uint64_t>(count), 2) + Number(0, 4) + question.substr(12) +
               resources;
    }

    unsigned short m_port = 0;
    int m_udp = -1;
    int m_tcp = -1;
    std::atomic<bool> m_stop{false};
    std::atomic<bool> m_isPaused{false};
    std::mutex m_mutex;
    std::map<std::string, DnsAnswer> m_answers;
    std::map<std::string, int> m_queries;
    std::thread m_thread;
};
