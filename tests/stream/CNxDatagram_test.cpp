#include <nx/stream/CNxDatagram.h>
#include <tests/support/Endpoints.h>
#include <tests/support/FailingNew.h>
#include <tests/support/Must.h>
#include <tests/support/TempFolder.h>

#include <map>
#include <thread>

#include "RunUntil.h"

namespace {

// Keeps what it receives, and does with it what it is told to.
class Node {
public:
    explicit Node(INxReactor& reactor, const std::string& at = "",
                  const CNxDatagramOptions& options = {})
        : m_socket(std::make_unique<CNxDatagram>(
              reactor, [this](const CNxReceivedDatagram& received) { Take(received); })) {
        if (!at.empty()) {
            Must(m_socket->Open(Parse(at), options));
        }
    }

    CNxDatagram* operator->() const { return m_socket.get(); }
    const CNxEndpoint& Where() const { return m_socket->GetEndpoint(); }
    CNxDatagramCounts Counts() const { return m_socket->GetCounts(); }

    std::unique_ptr<CNxDatagram> m_socket;
    std::vector<std::string> m_received;
    int m_truncated = 0;
    std::function<void(const CNxReceivedDatagram&)> m_onReceived;

private:
    void Take(const CNxReceivedDatagram& received) {
        m_received.emplace_back(received.bytes);
        m_truncated += received.isTruncated ? 1 : 0;
        if (m_onReceived) {
            m_onReceived(received);
        }
    }
};

// Only the test itself reads and writes it.
struct Plain : CNxSocketBase {
    explicit Plain(const std::string& at) : m_where(Parse(at)) {
        EXPECT_EQ(Open(m_where.GetFamily(), SOCK_DGRAM | SOCK_NONBLOCK, 0, 0), 0);
        EXPECT_EQ(bind(GetHandle(), m_where.GetAddress(), m_where.GetSize()), 0);
        Must(m_where.SetLocalOf(GetHandle()));
    }
    void Send(const CNxEndpoint& to, const std::string& bytes) const {
        sendto(GetHandle(), bytes.data(), bytes.size(), 0, to.GetAddress(), to.GetSize());
    }
    // "" when there is none.
    std::string Receive() const {
        char bytes[8];
        const ssize_t got = recv(GetHandle(), bytes, sizeof bytes, 0);
        return {bytes, got > 0 ? static_cast<size_t>(got) : 0};
    }

    CNxEndpoint m_where;
};

template <class Reactor>
class Datagrams : public UntilReactor<Reactor> {
protected:
    const CTempFolder m_folder;
};
TYPED_TEST_SUITE(Datagrams, AllReactors, ReactorNames);

// Runs of one size with shorter and empty ones between them, in the three forms, to a server that
// sends them back.
TYPED_TEST(Datagrams, AllSizesArriveInOrderAndComeBack) {
    std::vector<std::string> sent;
    for (const size_t size : {0U, 1U, 65507U, 1400U, 0U, 30000U, 30000U, 700U}) {
        sent.insert(sent.end(), size < 2000 ? 70 : 2, std::string(size, 'x'));
        sent.push_back(std::string(size / 2, 'y'));
    }
    { const Plain leftOver("unix:" + this->m_folder.Path("left over")); }
    for (const std::string& place : {std::string("127.0.0.1:0"), std::string("[::1]:0"),
                                     "unix:" + this->m_folder.Path("left over"),
                                     "unix:@nx-datagram" + std::to_string(getpid())}) {
        this->Reopen();
        Node server(this->m_reactor, place);
        Node client(this->m_reactor, place[0] == 'u' ? place + "2" : place);
        server.m_onReceived = [&](const CNxReceivedDatagram& received) {
            EXPECT_EQ(received.from, client.Where());
            EXPECT_EQ(server->Send(received.from, received.bytes), NX_OK);
        };
        size_t count = 0;
        const auto sendNext = [&] {
            std::string& next = sent[count];
            const size_t first = next.size() / 3;
            const iovec pieces[] = {{next.data(), first}, {&next[first], next.size() - first}};
            EXPECT_EQ(count % 3 == 0   ? client->Send(server.Where(), next)
                      : count % 3 == 1 ? client->Send(server.Where(), pieces, 2)
                                       : client->Send(server.Where(), CNxMessageChain(next)),
                      NX_OK);
            ++count;
        };
        // No more at a time than a receive buffer holds.
        this->RunUntil([&] {
            while (count < sent.size() &&
                   count - client.m_received.size() < (sent[count].size() > 2000 ? 1 : 71)) {
                sendNext();
            }
            return client.m_received.size() == sent.size();
        });
        EXPECT_TRUE(server.m_received == sent && client.m_received == sent) << place;
        EXPECT_EQ(client.Counts().sent, sent.size());
        EXPECT_EQ(client.Counts().droppedSending + client.Counts().droppedReceiving, 0U);
    }
}

// Over a unix socket, which loses none: a full peer holds all of them up for a while.
TYPED_TEST(Datagrams, WhatOtherThreadsSendArrivesInTheOrderOfEach) {
    constexpr int c_each = 500;
    CNxDatagramOptions options;
    options.receivedPerTurn = 5;
    Node server(this->m_reactor, "unix:" + this->m_folder.Path("a"), options);
    Node client(this->m_reactor, "unix:");
    std::vector<std::thread> threads;
    for (const char name : {'a', 'b', 'c'}) {
        threads.emplace_back([&, name] {
            for (int i = 0; i < c_each; ++i) {
                EXPECT_EQ(client->Send(server.Where(), name + std::to_string(i)), NX_OK);
            }
        });
    }
    this->RunUntil([&] { return server.m_received.size() == 3 * c_each; });
    std::map<char, int> next;
    for (const std::string& bytes : server.m_received) {
        EXPECT_EQ(bytes.substr(1), std::to_string(next[bytes[0]]++));
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TYPED_TEST(Datagrams, WhatAFullPeerDoesNotTakeWaitsWithinItsBound) {
    const Plain peer("unix:" + this->m_folder.Path("peer"));
    CNxDatagramOptions options;
    options.maxUnsent = 50 * 1000;
    Node node(this->m_reactor, "unix:", options);
    std::vector<std::string> sent;
    NxResult result = NX_OK;
    for (int i = 0; i < 500; ++i) {
        const NxResult last = std::exchange(result, node->Send(peer.m_where, std::to_string(i)));
        ASSERT_TRUE(result == NX_ERROR_NOT_AVAILABLE || (result == NX_OK && last == NX_OK));
        if (result == NX_OK) {
            sent.push_back(std::to_string(i));
        }
    }
    std::vector<std::string> received;
    this->RunUntil([&] {
        for (std::string bytes; !(bytes = peer.Receive()).empty();) {
            received.push_back(bytes);
        }
        return received.size() == sent.size();
    });
    EXPECT_EQ(received, sent);
    EXPECT_EQ(node.Counts().sent, sent.size());
    node->Send(Parse("unix:" + this->m_folder.Path("nobody")), "x");
    node->Flush();
    EXPECT_EQ(node.Counts().droppedSending, 500 - sent.size() + 1);
}

TYPED_TEST(Datagrams, NobodyAtTheOtherEndEndsNothing) {
    CNxDatagramOptions options;
    options.peer = Plain("127.0.0.1:0").m_where;
    Node node(this->m_reactor, "127.0.0.1:0", options);
    Node server(this->m_reactor);
    server.m_onReceived = [&](const CNxReceivedDatagram& received) {
        EXPECT_EQ(server->Send(received.from, received.bytes), NX_OK);
    };
    // At first they come back as ICMP messages.
    int turns = 0;
    this->RunUntil([&] {
        if (++turns == 10) {
            Must(server->Open(options.peer, {}));
        }
        EXPECT_EQ(node->Send({}, "x"), NX_OK);
        EXPECT_EQ(node->Send({}, ""), NX_OK);
        return node.m_received.size() > 10;
    });
    EXPECT_EQ(node.Counts().droppedSending, 0U);
}

TYPED_TEST(Datagrams, WhatIsCutOffOrLostIsTold) {
    CNxDatagramOptions options;
    options.maxReceived = 4;
    options.receiveBuffer = 1;
    Node node(this->m_reactor, "127.0.0.1:0", options);
    const Plain peer("127.0.0.1:0");
    for (int i = 0; i < 200; ++i) {
        peer.Send(node.Where(), "12345");
    }
    this->RunUntil([&, isSent = false]() mutable {
        if (!node.m_received.empty() && !std::exchange(isSent, true)) {
            peer.Send(node.Where(), "last");
        }
        return isSent && node.m_received.back() == "last";
    });
    EXPECT_EQ(node.Counts().received + node.Counts().droppedReceiving, 201U);
    EXPECT_EQ(node.m_truncated, static_cast<int>(node.m_received.size()) - 1);
    EXPECT_EQ(node.m_received.front(), "1234");
}

TYPED_TEST(Datagrams, MayBeClosedReopenedAndDestroyedWithinItsCall) {
    const Plain peer("127.0.0.1:0");
    Node reopened(this->m_reactor, "127.0.0.1:0");
    Node destroyed(this->m_reactor, "127.0.0.1:0");
    const CNxEndpoint again = reopened.Where();
    for (Node* node : {&reopened, &destroyed}) {
        node->m_onReceived = [&, node](const CNxReceivedDatagram& received) {
            EXPECT_EQ((*node)->Send(received.from, "answer"), NX_OK);
            (*node)->Close();
            EXPECT_EQ((*node)->Send(received.from, "x"), NX_ERROR_NOT_INITIALIZED);
            if (node == &destroyed) {
                node->m_socket.reset();
            } else if (node->m_received.size() == 1) {
                EXPECT_EQ((*node)->Open(again, {}), NX_OK);
                peer.Send(again, "more");
            }
            EXPECT_EQ(received.bytes, "more");
        };
        for (int i = 0; i < 5; ++i) {
            peer.Send(node->Where(), "more");
        }
    }
    this->RunUntil([&, answers = 0]() mutable {
        answers += peer.Receive() == "answer" ? 1 : 0;
        return answers == 3;
    });
    EXPECT_EQ(destroyed.m_received.size(), 1U);
    EXPECT_EQ(reopened.m_received.size(), 2U);
}

TYPED_TEST(Datagrams, MembersOfAGroupGetWhatIsSentToIt) {
    CNxDatagramOptions options;
    options.multicastInterface = "lo";
    Node node(this->m_reactor, "*:0", options);
    const CNxEndpoint group = Parse("239.7.7.7:" + std::to_string(node.Where().GetPort()));
    // A machine need not have a way for IPv6 groups.
    EXPECT_EQ(node->Join(Parse("[ff12::7777]:0"), "lo"), NX_OK);
    EXPECT_EQ(node->Leave(group, "lo"), NX_ERROR_FAILURE);
    EXPECT_EQ(node->Join(group, "lo"), NX_OK);
    EXPECT_EQ(node->Send(group, "all"), NX_OK);
    this->RunUntil([&] { return node.m_received.size() == 1; });
    EXPECT_EQ(node->Leave(group, "lo"), NX_OK);
}

TYPED_TEST(Datagrams, WantOfMemoryIsAnAnswer) {
    for (long skipped = 0, failed = 1; failed != 0; ++skipped) {
        Node node(this->m_reactor);
        const CNxEndpoint at = Parse("127.0.0.1:0");
        const FailingNew memory(skipped, FailingNew::ONCE);
        const NxResult opened = node->Open(at, {});
        const NxResult sent = opened == NX_OK ? node->Send(node.Where(), "x") : opened;
        node->Flush();
        failed = FailingNew::CountFailed();
        EXPECT_TRUE(sent == NX_OK || (sent == NX_ERROR_FAILURE && failed != 0)) << skipped;
        EXPECT_EQ(node.Counts().sent, sent == NX_OK ? 1U : 0U);
    }
}

}  // namespace
