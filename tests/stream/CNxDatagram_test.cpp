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
        : m_socket(std::make_unique<CNxDatagram>(reactor, [this](const auto& received) {
              m_received.emplace_back(received.bytes);
              m_onReceived(received);
          })) {
        if (!at.empty()) {
            Must(m_socket->Open(Parse(at), options));
        }
    }

    CNxDatagram* operator->() const { return m_socket.get(); }
    const CNxEndpoint& Where() const { return m_socket->GetEndpoint(); }
    CNxDatagramCounts Counts() const { return m_socket->GetCounts(); }

    std::unique_ptr<CNxDatagram> m_socket;
    std::vector<std::string> m_received;
    std::function<void(const CNxReceivedDatagram&)> m_onReceived = [](const auto&) {};
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
    CNxSocketBase leftOver;
    const CNxEndpoint path = Parse("unix:" + this->m_folder.Path("left over"));
    ASSERT_EQ(leftOver.Open(AF_UNIX, SOCK_DGRAM, 0, 0), 0);
    ASSERT_EQ(bind(leftOver.GetHandle(), path.GetAddress(), path.GetSize()), 0);
    leftOver.Close();
    for (const std::string& place :
         {std::string("127.0.0.1:0"), std::string("[::1]:0"), path.GetText(),
          std::string("unix:@nx-datagram") + std::to_string(getpid())}) {
        this->Reopen();
        Node server(this->m_reactor, place);
        Node client(this->m_reactor, place[0] == 'u' ? place + "2" : place);
        server.m_onReceived = [&](const CNxReceivedDatagram& received) {
            EXPECT_EQ(received.from, client.Where());
            EXPECT_EQ(server->Send(received.from, received.bytes), NX_OK);
        };
        std::vector<std::string> sent;
        const auto send = [&](std::string next) {
            const size_t first = next.size() / 3;
            const iovec pieces[] = {{next.data(), first}, {&next[first], next.size() - first}};
            EXPECT_EQ(sent.size() % 3 == 0   ? client->Send(server.Where(), next)
                      : sent.size() % 3 == 1 ? client->Send(server.Where(), pieces, 2)
                                             : client->Send(server.Where(), CNxMessageChain(next)),
                      NX_OK);
            sent.push_back(std::move(next));
        };
        // No more at a time than a receive buffer holds.
        std::vector<size_t> sizes = {0, 1, 65507, 1400, 30000, 700};
        this->RunUntil([&] {
            if (client.m_received.size() < sent.size() || sizes.empty()) {
                return client.m_received.size() >= sent.size();
            }
            for (int i = 0; i < 35; i += sizes.back() < 2000 ? 1 : 35) {
                send(std::string(sizes.back(), 'x'));
                send(std::string(i == 0 ? sizes.back() / 2 : sizes.back(), 'y'));
            }
            send("");
            sizes.pop_back();
            return false;
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
    Node peer(this->m_reactor, "unix:" + this->m_folder.Path("peer"));
    CNxDatagramOptions options;
    options.maxUnsent = 50 * 1000;
    Node node(this->m_reactor, "unix:", options);
    std::vector<std::string> sent;
    while (sent.size() < 1000 && node->Send(peer.Where(), std::to_string(sent.size())) == NX_OK) {
        sent.push_back(std::to_string(sent.size()));
    }
    EXPECT_EQ(node->Send(peer.Where(), "x"), NX_ERROR_NOT_AVAILABLE);
    this->RunUntil([&] { return peer.m_received.size() >= sent.size(); });
    EXPECT_EQ(peer.m_received, sent);
    EXPECT_EQ(node.Counts().sent, sent.size());
    node->Send(Parse("unix:" + this->m_folder.Path("nobody")), "x");
    node->Flush();
    EXPECT_EQ(node.Counts().droppedSending, 3U);
}

TYPED_TEST(Datagrams, NobodyAtTheOtherEndEndsNothing) {
    CNxDatagramOptions options;
    options.peer = Node(this->m_reactor, "127.0.0.1:0").Where();
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
    Node peer(this->m_reactor, "127.0.0.1:0");
    node.m_onReceived = [](const CNxReceivedDatagram& received) {
        EXPECT_EQ(received.bytes, received.isTruncated ? "1234" : "last");
    };
    for (int i = 0; i < 200; ++i) {
        peer->Send(node.Where(), "12345");
    }
    peer->Flush();
    this->RunUntil([&, isSent = false]() mutable {
        if (!node.m_received.empty() && !std::exchange(isSent, true)) {
            peer->Send(node.Where(), "last");
        }
        return isSent && node.m_received.back() == "last";
    });
    EXPECT_EQ(node.Counts().received + node.Counts().droppedReceiving, 201U);
}

TYPED_TEST(Datagrams, MayBeClosedReopenedAndDestroyedWithinItsCall) {
    Node peer(this->m_reactor, "127.0.0.1:0");
    Node reopened(this->m_reactor, "127.0.0.1:0");
    Node destroyed(this->m_reactor, "127.0.0.1:0");
    for (Node* node : {&reopened, &destroyed}) {
        node->m_onReceived = [&, node, again = node->Where()](const CNxReceivedDatagram& received) {
            EXPECT_EQ((*node)->Send(received.from, "answer"), NX_OK);
            (*node)->Close();
            EXPECT_EQ((*node)->Send(received.from, "x"), NX_ERROR_NOT_INITIALIZED);
            if (node == &destroyed) {
                node->m_socket.reset();
            } else if (node->m_received.size() == 1) {
                EXPECT_EQ((*node)->Open(again, {}), NX_OK);
                peer->Send(again, "more");
            }
            EXPECT_EQ(received.bytes, "more");
        };
        for (int i = 0; i < 5; ++i) {
            peer->Send(node->Where(), "more");
        }
    }
    peer->Flush();
    this->RunUntil([&] { return peer.m_received.size() >= 3; });
    EXPECT_EQ(peer.m_received, std::vector<std::string>(3, "answer"));
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
