// Answers of a name server through c-ares into records.
#include <nx/resolve/CDnsChannel.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <set>
#include <string>

namespace {

void StopUnless(bool isRight) {
    if (!isRight) {
        std::abort();
    }
}

class Server {
public:
    Server() : m_fd(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
        StopUnless(m_address.SetNumeric("127.0.0.1:0") == NX_OK);
        socklen_t size = sizeof(sockaddr_in);
        StopUnless(bind(m_fd, m_address.GetPtr(), size) == 0 &&
                   getsockname(m_fd, m_address.GetPtr(), &size) == 0);
    }

    const CNxInetAddr& GetAddress() const { return m_address; }

    // Answers what has been asked with the input: what it says of the question, ten bytes of the
    // header, and the rest. The number and, if so said, the question are those that were asked.
    bool Answer(const uint8_t* data, size_t size) const {
        char query[512];
        sockaddr_in from{};
        auto* const peer = reinterpret_cast<sockaddr*>(&from);
        socklen_t fromSize = sizeof(from);
        const ssize_t got = recvfrom(m_fd, query, sizeof(query), 0, peer, &fromSize);
        if (got < 12) {
            return false;
        }
        const auto* const input = reinterpret_cast<const char*>(data);
        std::string reply(query, 2);
        reply.append(input + 1, 10);
        if (data[0] % 2 == 0) {
            reply.append(query + 12, static_cast<size_t>(got) - 12);
        }
        reply.append(input + 11, size - 11);
        sendto(m_fd, reply.data(), reply.size(), 0, peer, fromSize);
        return true;
    }

private:
    const int m_fd;
    CNxInetAddr m_address;
};

class User : public CDnsChannel::IUser {
public:
    bool OnSocketOpened(CDnsChannel& /*channel*/, int fd) override {
        return m_sockets.insert(fd).second;
    }
    void OnSocketClosing(int fd) override { m_sockets.erase(fd); }
    void OnLookupEnd(CDnsChannel& /*channel*/, CDnsLookup& lookup, int /*timeouts*/) override {
        const CNxDnsRecord& record = *lookup.GetRecord();
        const long seconds = (record.GetExpireTime() - record.GetResolveTime()).GetSec();
        StopUnless(seconds >= 1 && seconds <= 3600);
        StopUnless((record.GetResult() == NX_OK) == !record.GetAddresses().empty());
        for (const CNxInetAddr& address : record.GetAddresses()) {
            CNxInetAddr again;
            StopUnless(again.SetNumeric(address.GetHostPort()) == NX_OK && again == address);
        }
        ++m_ended;
    }

    std::set<int> m_sockets;
    int m_ended = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const Server s_server;
    if (size < 11 || size > 4096) {
        return 0;
    }
    User user;
    CDnsLookup lookup("a.name.test");
    {
        CDnsChannel channel(user);
        StopUnless(channel.Open({{s_server.GetAddress()}, 1000, 1}, 0) == NX_OK);
        channel.Start(lookup);
        // Names of a search list may follow.
        for (int round = 0; round < 8 && user.m_ended == 0; ++round) {
            while (s_server.Answer(data, size)) {
            }
            for (const int fd : std::set<int>(user.m_sockets)) {
                channel.OnReady(fd, true);
            }
        }
        // An answer that is none is waited for on.
    }
    StopUnless(user.m_ended == 1 && user.m_sockets.empty());
    while (s_server.Answer(data, size)) {
    }
    return 0;
}
