// Answers of a name server through c-ares into records.
#include <nx/net/CNxSocket.h>
#include <nx/resolve/CDnsChannel.h>
#include <sys/socket.h>

#include <set>
#include <string>

#include "Fuzz.h"

namespace {

// Answers what has been asked with the input: what it says of the question, ten bytes of the
// header, and the rest. The number and, if so said, the question are those that were asked.
bool Answer(const CNxSocketUdp& socket, CFuzzBytes input) {
    char query[512];
    CNxInetAddr peer("127.0.0.1", 0);
    socklen_t size = sizeof(sockaddr_in);
    const ssize_t got =
        recvfrom(socket.GetHandle(), query, sizeof(query), MSG_DONTWAIT, peer.GetPtr(), &size);
    if (got < 12) {
        return false;
    }
    const bool hasQuestion = input.TakeByte() % 2 == 0;
    std::string reply(query, 2);
    reply += input.Take(10);
    reply.append(query + 12, hasQuestion ? static_cast<size_t>(got) - 12 : 0);
    reply += input.m_left;
    sendto(socket.GetHandle(), reply.data(), reply.size(), 0, peer.GetPtr(), size);
    return true;
}

class User : public CDnsChannel::IUser {
public:
    bool OnSocketOpened(CDnsChannel& /*channel*/, int fd) override {
        return m_sockets.insert(fd).second;
    }
    void OnSocketClosing(int fd) override { m_sockets.erase(fd); }
    void OnLookupEnd(CDnsChannel& /*channel*/, CDnsLookup& lookup, int /*timeouts*/) override {
        const CNxDnsRecord& record = *lookup.GetRecord();
        const long seconds = (record.GetExpireTime() - record.GetResolveTime()).GetSec();
        Require(seconds >= 1 && seconds <= 3600);
        Require((record.GetResult() == NX_OK) == !record.GetAddresses().empty());
        for (const CNxInetAddr& address : record.GetAddresses()) {
            CNxInetAddr again;
            Require(again.SetNumeric(address.GetHostPort()) == NX_OK && again == address);
        }
        ++m_ended;
    }

    std::set<int> m_sockets;
    int m_ended = 0;
};

}  // namespace

void Fuzz(std::string_view input) {
    if (input.size() < 11 || input.size() > 4096) {
        return;
    }
    CNxSocketUdp server;
    CNxInetAddr address;
    Require(server.Open(CNxInetAddr("127.0.0.1", 0)) == 0 && server.GetLocalAddr(address) == 0);
    User user;
    CDnsLookup lookup("a.name.test");
    {
        CDnsChannel channel(user);
        Require(channel.Open({{address}, 1000, 1}, 0) == NX_OK);
        channel.Start(lookup);
        // Names of a search list may follow.
        for (int round = 0; round < 8 && user.m_ended == 0; ++round) {
            while (Answer(server, {input})) {
            }
            for (const int fd : std::set<int>(user.m_sockets)) {
                channel.OnReady(fd, true);
            }
        }
        // An answer that is none is waited for on.
    }
    Require(user.m_ended == 1 && user.m_sockets.empty());
}
