#include <netinet/in.h>
#include <nx/stream/CNxDatagram.h>
#include <poll.h>
#include <tests/support/FailingNew.h>
#include <tests/support/Must.h>
#include <tests/support/TempFolder.h>

#include <map>
#include <set>
#include <thread>

#include "Endpoints.h"
#include "SteppedReactor.h"

namespace {

// Keeps what it receives, and does what it is told to with it.
class Node {
public:
    explicit Node(INxReactor& reactor, const std::string& at = "", CNxDatagramOptions options = {})
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

// A socket that only a test reads and writes.
class PlainSocket {
public:
    explicit PlainSocket(const CNxEndpoint& at)
        : m_fd(socket(at.GetFamily(), SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
        EXPECT_EQ(bind(m_fd, at.GetAddress(), at.GetSize()), 0);
        EXPECT_EQ(m_where.SetLocalOf(m_fd), NX_OK);
    }
    ~PlainSocket() { close(m_fd); }
    PlainSocket(const PlainSocket&) = delete;
    PlainSocket& operator=(const PlainSocket&) = delete;

    void Send(const CNxEndpoint& to, const std::string& bytes) const {
        EXPECT_EQ(sendto(m_fd, bytes.data(), bytes.size(), 0, to.GetAddress(), to.GetSize()),
                  static_cast<ssize_t>(bytes.size()));
    }
    bool Receive(std::string& bytes) const {
        char buffer[2048];
        const ssize_t got = recv(m_fd, buffer, sizeof(buffer), 0);
        bytes.assign(buffer, static_cast<size_t>(std::max<ssize_t>(got, 0)));
        return got >= 0;
    }

    const int m_fd;
    CNxEndpoint m_where;
};

template <class Reactor>
class Datagrams : public SteppedReactor<Reactor> {
protected:
    CTempFolder m_folder;
};
TYPED_TEST_SUITE(Datagrams, AllReactors, ReactorNames);

// Runs of one size, shorter and empty ones between them, in all three forms.
TYPED_TEST(Datagrams, AllSizesArriveInOrderAndComeBack) {
    std::vector<std::string> sent;
    for (const size_t size : {0, 1, 65507, 1400, 0, 30000, 30000, 700}) {
        for (size_t i = 0; i < (size < 2000 ? 70 : 3); ++i) {
            sent.push_back(std::string(size - (i == 69 ? size / 2 : 0), static_cast<char>(i)));
        }
    }
    const std::string places[][2] = {
        {"127.0.0.1:0", "127.0.0.1:0"},
        {"[::1]:0", "[::1]:0"},
        {"*:0", "127.0.0.1:0"},
        {"unix:" + this->m_folder.Path("a"), "unix:" + this->m_folder.Path("b")},
        {"unix:@nx-datagram-a" + std::to_string(getpid()),
         "unix:@nx-datagram-b" + std::to_string(getpid())},
    };
    CNxDatagramOptions options;
    options.maxUnsent = options.receiveBuffer = options.sendBuffer = 8 << 20;
    std::vector<std::unique_ptr<Node>> nodes;
    std::vector<typename TestFixture::Step> steps;
    for (const auto& place : places) {
        nodes.push_back(std::make_unique<Node>(this->m_reactor, place[0], options));
        Node& server = *nodes.back();
        nodes.push_back(std::make_unique<Node>(this->m_reactor, place[1], options));
        Node& client = *nodes.back();
        server.m_onReceived = [&](const CNxReceivedDatagram& received) {
            EXPECT_EQ(received.from, client.Where());
            EXPECT_EQ(server->Send(received.from, received.bytes), NX_OK);
        };
        CNxEndpoint to = server.Where();
        if (place[0] == "*:0") {
            to = Parse("127.0.0.1:" + std::to_string(to.GetPort()));
        }
        // A receive buffer may be smaller than all of it: a datagram that was lost is not missed.
        for (const std::string& bytes : sent) {
            const auto send = [&client, to, &bytes, form = steps.size() % 3] {
                const iovec pieces[] = {{const_cast<char*>(bytes.data()), bytes.size() / 3},
                                        {const_cast<char*>(bytes.data()) + bytes.size() / 3,
                                         bytes.size() - bytes.size() / 3}};
                EXPECT_EQ(form == 0   ? client->Send(to, bytes)
                          : form == 1 ? client->Send(to, pieces, 2)
                                      : client->Send(to, CNxMessageChain(bytes)),
                          NX_OK);
            };
            const size_t count = static_cast<size_t>(&bytes - sent.data()) + 1;
            const bool isLastOfSome = count % 40 == 0 || count == sent.size();
            steps.push_back({send, [&client, count, isLastOfSome] {
                                 return !isLastOfSome || client.m_received.size() == count;
                             }});
        }
    }
    this->RunSteps(steps);
    for (const auto& node : nodes) {
        EXPECT_EQ(node->m_received, sent) << node->Where().GetText();
        EXPECT_EQ(node->Counts().sent, sent.size());
        EXPECT_EQ(node->Counts().received, sent.size());
        EXPECT_EQ(node->Counts().droppedSending + node->Counts().droppedReceiving, 0U);
    }
}

// Over a unix socket, which loses none: a full peer holds all others up for a while.
TYPED_TEST(Datagrams, WhatOtherThreadsSendArrivesInTheOrderOfEach) {
    constexpr int c_threads = 4;
    constexpr int c_each = 500;
    CNxDatagramOptions options;
    options.receivedPerTurn = 5;
    Node server(this->m_reactor, "unix:" + this->m_folder.Path("a"), options);
    Node client(this->m_reactor, "unix:");
    std::vector<std::thread> threads;
    const auto start = [&] {
        for (int thread = 0; thread < c_threads; ++thread) {
            threads.emplace_back([&, thread] {
                for (int i = 0; i < c_each; ++i) {
                    const std::string bytes = std::to_string(thread) + std::to_string(i);
                    EXPECT_EQ(client->Send(server.Where(), bytes), NX_OK);
                }
            });
        }
    };
    this->RunSteps({{start, [&] { return server.m_received.size() == c_threads * c_each; }}});
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::map<char, int> next;
    for (const std::string& bytes : server.m_received) {
        EXPECT_EQ(bytes.substr(1), std::to_string(next[bytes[0]]++));
    }
    EXPECT_EQ(client.Counts().sent, server.Counts().received);
}

TYPED_TEST(Datagrams, WhatAFullPeerDoesNotTakeWaitsWithinItsBound) {
    const PlainSocket peer(Parse("unix:" + this->m_folder.Path("peer")));
    CNxDatagramOptions options;
    options.maxUnsent = 50 * 1000;
    Node node(this->m_reactor, "unix:", options);
    std::uint64_t accepted = 0;
    std::uint64_t refused = 0;
    std::set<std::string> received;
    const auto send = [&] {
        for (int i = 0; i < 500; ++i) {
            const NxResult sent = node->Send(peer.m_where, std::to_string(1000 + i));
            ++(sent == NX_OK ? accepted : refused);
            EXPECT_TRUE(sent == NX_OK || sent == NX_ERROR_NOT_AVAILABLE);
        }
        EXPECT_EQ(node->Send(peer.m_where, std::string(65536, 'x')), NX_ERROR_INVALID_ARG);
    };
    const auto isAllThere = [&] {
        std::string bytes;
        while (peer.Receive(bytes)) {
            EXPECT_TRUE(received.empty() || bytes > *received.rbegin());
            received.insert(bytes);
        }
        return received.size() == accepted;
    };
    this->RunSteps({{send, isAllThere}});
    EXPECT_GT(accepted, 300U);
    EXPECT_GT(refused, 0U);
    EXPECT_EQ(node.Counts().sent, accepted);
    EXPECT_EQ(node.Counts().droppedSending, refused);
    // Nobody is there any more.
    node->Send(Parse("unix:" + this->m_folder.Path("nobody")), "x");
    node->Flush();
    EXPECT_EQ(node.Counts().droppedSending, refused + 1);
}

TYPED_TEST(Datagrams, NobodyAtTheOtherEndEndsNothing) {
    auto nobody = std::make_unique<PlainSocket>(Parse("127.0.0.1:0"));
    CNxDatagramOptions options;
    options.peer = nobody->m_where;
    Node node(this->m_reactor, "127.0.0.1:0", options);
    nobody.reset();
    std::unique_ptr<Node> server;
    const auto sendTen = [&] {
        for (int i = 0; i < 10; ++i) {
            EXPECT_EQ(node->Send({}, std::string(static_cast<size_t>(i), 'x')), NX_OK);
        }
        node->Flush();
    };
    const auto serve = [&] {
        server = std::make_unique<Node>(this->m_reactor, options.peer.GetText());
        server->m_onReceived = [&](const CNxReceivedDatagram& received) {
            EXPECT_EQ((*server)->Send(received.from, received.bytes), NX_OK);
        };
        sendTen();
    };
    this->RunSteps({{sendTen, [&] { return node.Counts().sent == 10; }},
                    {serve, [&] { return node.m_received.size() == 10; }}});
    EXPECT_EQ(node.Counts().droppedSending, 0U);
}

TYPED_TEST(Datagrams, WhatIsCutOffOrLostIsTold) {
    CNxDatagramOptions options;
    options.maxReceived = 4;
    options.receiveBuffer = 1;
    Node node(this->m_reactor, "127.0.0.1:0", options);
    const PlainSocket peer(Parse("127.0.0.1:0"));
    for (int i = 0; i < 200; ++i) {
        peer.Send(node.Where(), "12345");
    }
    this->RunSteps({{[] {}, [&] { return !node.m_received.empty(); }},
                    {[&] { peer.Send(node.Where(), "1234"); },
                     [&] {
                         return node.m_received.back() == "1234" && node.m_truncated != 0 &&
                                node.Counts().droppedReceiving != 0;
                     }}});
    EXPECT_EQ(node.Counts().received + node.Counts().droppedReceiving, 201U);
    EXPECT_EQ(node.m_truncated, static_cast<int>(node.m_received.size()) - 1);
}

TYPED_TEST(Datagrams, MayBeClosedReopenedAndDestroyedWithinItsCall) {
    const PlainSocket peer(Parse("127.0.0.1:0"));
    Node closed(this->m_reactor, "127.0.0.1:0");
    Node reopened(this->m_reactor, "127.0.0.1:0");
    Node destroyed(this->m_reactor, "127.0.0.1:0");
    const CNxEndpoint again = reopened.Where();
    for (Node* node : {&closed, &reopened, &destroyed}) {
        node->m_onReceived = [&, node](const CNxReceivedDatagram& received) {
            EXPECT_EQ((*node)->Send(received.from, "answer"), NX_OK);
            (*node)->Close();
            if (node == &reopened && node->m_received.size() == 1) {
                EXPECT_EQ((*node)->Open(again, {}), NX_OK);
                peer.Send(again, "more");
            } else if (node == &destroyed) {
                node->m_socket.reset();
            }
            EXPECT_EQ(received.bytes.substr(0, 4), "more");
        };
        for (int i = 0; i < 5; ++i) {
            peer.Send(node->Where(), "more");
        }
    }
    int answers = 0;
    this->RunSteps({{[] {},
                     [&] {
                         std::string bytes;
                         answers += peer.Receive(bytes) && bytes == "answer" ? 1 : 0;
                         return answers == 4;
                     }}});
    EXPECT_EQ(closed.m_received.size() + destroyed.m_received.size(), 2U);
    EXPECT_EQ(reopened.m_received.size(), 2U);
    EXPECT_EQ(closed->Send(peer.m_where, "x"), NX_ERROR_NOT_INITIALIZED);
}

TYPED_TEST(Datagrams, MembersOfAGroupGetWhatIsSentToIt) {
    CNxDatagramOptions options;
    options.multicastInterface = "lo";
    options.multicastTtl = 3;
    Node node(this->m_reactor, "0.0.0.0:0", options);
    Node node6(this->m_reactor, "[::]:0", options);
    const CNxEndpoint group = Parse("239.7.7.7:" + std::to_string(node.Where().GetPort()));
    // A machine need not have a way for IPv6 groups.
    for (const auto& [member, where] :
         {std::pair{&node, group}, {&node6, Parse("[ff12::7777]:0")}}) {
        EXPECT_EQ((*member)->Leave(where, "lo"), NX_ERROR_FAILURE);
        EXPECT_EQ((*member)->Join(where, "lo"), NX_OK);
        EXPECT_EQ((*member)->Join(where, "no such one"), NX_ERROR_INVALID_ARG);
        EXPECT_EQ((*member)->Join(member->Where(), "lo"), NX_ERROR_INVALID_ARG);
    }
    this->RunSteps({{[&] { EXPECT_EQ(node->Send(group, "all"), NX_OK); },
                     [&] { return node.m_received.size() == 1; }}});
    EXPECT_EQ(node->Leave(group, "lo"), NX_OK);
    EXPECT_EQ(node6->Leave(Parse("[ff12::7777]:0"), "lo"), NX_OK);
}

TYPED_TEST(Datagrams, OpenTakesOverWhatADeadProcessLeftAndRefusesTheRest) {
    const std::string path = "unix:" + this->m_folder.Path("socket");
    { const PlainSocket dead(Parse(path)); }
    Node node(this->m_reactor, path);
    Node other(this->m_reactor);
    EXPECT_EQ(node->Open(Parse(path), {}), NX_ERROR_ALREADY_INITIALIZED);
    EXPECT_EQ(other->Open(Parse(path), {}), NX_ERROR_FAILURE);
    EXPECT_EQ(errno, EADDRINUSE);
    EXPECT_EQ(other->Open({}, {}), NX_ERROR_INVALID_ARG);
    EXPECT_EQ(other->Join(Parse("239.7.7.7:0")), NX_ERROR_NOT_INITIALIZED);
    using Change = std::function<void(CNxDatagramOptions&)>;
    for (const Change& change :
         {Change([](auto& o) { o.maxReceived = 0; }),
          Change([](auto& o) { o.maxReceived = 65536; }),
          Change([](auto& o) { o.receivedPerTurn = 0; }), Change([](auto& o) { o.ttl = 256; }),
          Change([](auto& o) { o.multicastInterface = "no such one"; })}) {
        CNxDatagramOptions options;
        change(options);
        EXPECT_EQ(other->Open(Parse("127.0.0.1:0"), options), NX_ERROR_INVALID_ARG);
    }
    node->Close();
    EXPECT_NE(access(this->m_folder.Path("socket").c_str(), F_OK), 0);
}

TYPED_TEST(Datagrams, WantOfMemoryIsAnAnswer) {
    const PlainSocket peer(Parse("127.0.0.1:0"));
    for (int skipped = 0, failed = 1; failed != 0; ++skipped) {
        Node node(this->m_reactor);
        const CNxEndpoint at = Parse("127.0.0.1:0");
        const FailingNew memory(skipped, FailingNew::ONCE);
        const NxResult opened = node->Open(at, {});
        const NxResult sent = opened == NX_OK ? node->Send(peer.m_where, "x") : opened;
        node->Flush();
        failed = static_cast<int>(FailingNew::CountFailed());
        EXPECT_TRUE(sent == NX_OK || (sent == NX_ERROR_FAILURE && failed != 0)) << skipped;
        EXPECT_EQ(node.Counts().sent, sent == NX_OK ? 1U : 0U);
    }
}

}  // namespace
