// Two connections of a pair each against a model of what the other must see: sends on the loop's
// thread and on another, reads, pauses, half closes, closes, resets, time-outs and destruction, in
// any order. An acceptor that is paused and destroyed in its calls makes one of them.
// NX_MODEL_SECONDS, NX_MODEL_PAIRS and NX_MODEL_SEED make it long, wide, or again what it was.
#include <fcntl.h>
#include <nx/stream/CNxAcceptor.h>
#include <nx/stream/CNxConnection.h>
#include <sys/mman.h>
#include <tests/reactor/ReactorSupport.h>
#include <tests/support/Endpoints.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <iterator>
#include <map>
#include <random>

#include "StreamSupport.h"
#include "TlsSupport.h"

namespace {

using EState = CNxConnection::EState;

long GetSetting(const char* name, long otherwise) {
    const char* const value = std::getenv(name);
    return value != nullptr ? std::atol(value) : otherwise;
}

class Random {
public:
    explicit Random(unsigned seed) : m_engine(seed) {}
    size_t Below(size_t end) { return m_engine() % end; }
    bool OneIn(size_t count) { return Below(count) == 0; }

private:
    std::mt19937 m_engine;
};

// What one thread sends on one side: a text without an end, known by the place in it.
struct Lane {
    std::atomic<size_t> m_sent{0};
    size_t m_received = 0;

    static char At(size_t i) { return static_cast<char>('a' + (i * 31 + i / 32) % 26); }
    static std::string Text(size_t from, size_t size) {
        std::string text(size, '\0');
        std::generate(text.begin(), text.end(), [&] { return At(from++); });
        return text;
    }
    void Check(std::string_view text) {
        EXPECT_EQ(text, Text(m_received, text.size()));
        m_received += text.size();
    }
};

// Of both sides of a pair. Hard: one side may end without the other's having everything.
struct PairState {
    CNxFraming m_framing;
    size_t m_loneLane = 0;  // without framing
    std::atomic<bool> m_isHard{false};
};

class Side final : public INxConnectionSink {
public:
    Side(PairState& pair, Random& random) : m_pair(pair), m_random(random) {}

    void OnOpen(CNxConnection& /*connection*/) override {
        EXPECT_FALSE(std::exchange(m_isOpen, true));
        CheckCalled();
    }
    void OnReceive(CNxConnection& /*connection*/, CNxMessageChain& received) override {
        CheckCalled();
        EXPECT_FALSE(m_isEndTold || m_isPaused);
        if (!m_pair.m_framing.HasFrames()) {
            const size_t count = 1 + m_random.Below(received.GetSize() * 2);
            m_from->m_lanes[m_pair.m_loneLane].Check(received.Split(count).ToString());
            m_untaken = received.GetSize();
        } else {
            TakeFrame(received.ToString());
        }
        if (m_random.OneIn(8)) {
            (m_random.OneIn(2) ? this : m_from)->Act();
        }
    }
    void OnHighWater(CNxConnection& /*connection*/) override {
        CheckCalled();
        EXPECT_FALSE(std::exchange(m_isHigh, true));
    }
    void OnLowWater(CNxConnection& /*connection*/) override {
        CheckCalled();
        EXPECT_TRUE(std::exchange(m_isHigh, false));
        SendSome(0, m_random);
    }
    void OnEnd(CNxConnection& connection) override {
        CheckCalled();
        EXPECT_FALSE(std::exchange(m_isEndTold, true));
        if (m_isFinishing || !m_random.OneIn(4)) {
            connection.CloseWhenSent();
        }
    }
    void OnClosed(CNxConnection& connection, const CNxCloseReason& reason) override {
        EXPECT_FALSE(m_isAbandoned || std::exchange(m_isClosed, true));
        EXPECT_EQ(connection.GetState(), EState::CLOSED);
        m_reason = reason;
        if (!m_pair.m_isHard) {
            EXPECT_TRUE(reason.kind == ENxClosed::BY_US || reason.kind == ENxClosed::BY_PEER)
                << reason.text;
            EXPECT_TRUE(reason.kind != ENxClosed::BY_PEER || m_isEndTold);
        }
        if (m_random.OneIn(4)) {
            m_from->Act();
        }
    }

    // On the loop's thread.
    void Act() {
        const size_t what = IsOver() ? 0 : m_random.Below(m_pair.m_isHard ? 61 : 58);
        if (what == 0) {
            return;
        }
        if (what < 40) {
            SendSome(0, m_random);
        } else if (what < 52) {
            m_isPaused = what % 3 == 0;
            m_isPaused ? m_connection->PauseReading() : m_connection->ResumeReading();
        } else if (what < 55) {
            m_connection->EndSending();
        } else if (what < 58) {
            Close();
        } else if (what < 60) {
            m_isAbandoned = true;
            m_connection->Abandon();
        } else {
            m_connection->CloseNow();
        }
    }

    void Close() {
        m_hasClosed = m_hasClosed || !m_isEndTold;
        m_connection->CloseWhenSent();
    }

    // Lane 0 on the loop's thread, 1 on another.
    void SendSome(size_t lane, Random& random) {
        constexpr size_t c_sizes[] = {1, 10, 500, 5000, 40000};
        const size_t size = 1 + random.Below(c_sizes[random.Below(5)]);
        if (m_connection->GetUnsent() > 1000000) {
            return;
        }
        if (m_pair.m_framing.HasFrames()) {
            SendFrame(lane, size);
        } else if (lane == m_pair.m_loneLane) {
            const std::string text = Lane::Text(m_lanes[lane].m_sent, size);
            m_lanes[lane].m_sent += SendBytes(text, random) == NX_OK ? size : 0;
        }
    }

    // All that is left of the pair's life.
    void Finish() {
        m_isFinishing = true;
        if (!IsOver()) {
            m_isPaused = false;
            m_connection->ResumeReading();
            if (m_isEndTold) {
                m_connection->CloseWhenSent();
            }
        }
    }

    bool IsOver() const { return m_isClosed || m_isAbandoned; }

    // When both are over.
    void Check() const {
        EXPECT_NE(m_isClosed, m_isAbandoned);
        EXPECT_EQ(m_connection->GetState(), EState::CLOSED);
        EXPECT_EQ(m_connection->Send("x"), NX_ERROR_NOT_INITIALIZED);
        for (const Lane& lane : m_from->m_lanes) {
            EXPECT_LE(lane.m_received, lane.m_sent);
            if (!m_pair.m_isHard && m_isEndTold) {
                EXPECT_TRUE(lane.m_received == lane.m_sent ||
                            lane.m_received + m_untaken == lane.m_sent);
            }
        }
        EXPECT_TRUE(m_pair.m_isHard || m_isEndTold || m_hasClosed) << m_reason.text;
    }

    CNxAutoPtr<CNxConnection> m_connection;
    Side* m_from = nullptr;
    std::atomic<bool> m_hasClosed{false};  // before the other had

private:
    void CheckCalled() const { EXPECT_TRUE(m_isOpen && !IsOver()); }

    void TakeFrame(const std::string& frame) {
        ASSERT_GE(frame.size(), 6U);
        ASSERT_EQ(frame.size(), 6 + std::stoul(frame.substr(1, 5)));
        m_from->m_lanes[frame[0] == '0' ? 0 : 1].Check(std::string_view(frame).substr(6));
    }

    void SendFrame(size_t lane, size_t size) {
        char head[48];
        std::snprintf(head, sizeof(head), "%zu%05zu", lane, size);
        CNxMessageChain frame(head);
        CNxMessageChain wire;
        frame.Append(Lane::Text(m_lanes[lane].m_sent, size));
        if (lane == 1) {
            Must(m_pair.m_framing.Append(wire, std::move(frame)));
        }
        const NxResult sent =
            lane == 0 ? m_connection->SendFrame(std::move(frame)) : m_connection->SendShared(wire);
        m_lanes[lane].m_sent += sent == NX_OK ? size : 0;
    }

    NxResult SendBytes(const std::string& text, Random& random) {
        switch (random.Below(4)) {
            case 0:
                return m_connection->Send(text);
            case 1:
                return m_connection->SendShared(CNxMessageChain(text));
            case 2:
                return m_connection->Send(CNxMessageChain(text));
            default:
                break;
        }
        CNxSocketBase file;
        file.SetHandle(memfd_create("model", MFD_CLOEXEC));
        EXPECT_EQ(write(file.GetHandle(), text.data(), text.size()),
                  static_cast<ssize_t>(text.size()));
        return m_connection->SendFile(std::move(file), 0, text.size());
    }

    PairState& m_pair;
    Random& m_random;
    std::array<Lane, 2> m_lanes;  // what this side sends
    size_t m_untaken = 0;         // without framing
    bool m_isOpen = false;
    bool m_isPaused = false;
    bool m_isHigh = false;
    bool m_isEndTold = false;
    bool m_isFinishing = false;
    bool m_isClosed = false;
    bool m_isAbandoned = false;
    CNxCloseReason m_reason;
};

class Pair {
public:
    explicit Pair(Random& random) : m_sides{{{m_state, random}, {m_state, random}}} {
        const CNxFraming framings[] = {{}, CNxFraming::Lines(), CNxFraming::Prefixed(4)};
        m_state.m_framing = framings[random.Below(3)];
        m_state.m_loneLane = random.Below(2);
        m_state.m_isHard = random.OneIn(3);
        m_sides[0].m_from = &m_sides[1];
        m_sides[1].m_from = &m_sides[0];
    }

    void Connect(INxReactor& reactor, Random& random, CNxConnectedSocket accepted) {
        CNxConnectionOptions options = MakeOptions(random);
        static const CNxAutoPtr<CNxTlsContext> s_contexts[] = {
            MakeTls(false, MakeTlsOptions("", "")), MakeTls(true, MakeTlsOptions("server"))};
        const bool hasTls = random.OneIn(2);
        const linger reset{m_state.m_isHard && random.OneIn(2) ? 1 : 0, 0};
        CNxConnectedSocket ends[] = {{std::move(m_client), {}}, std::move(accepted)};
        for (size_t i : {0U, 1U}) {
            setsockopt(ends[i].socket.GetHandle(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
            options.tls = hasTls ? s_contexts[i] : nullptr;
            Must(CNxConnection::Create(m_sides[i].m_connection, reactor, std::move(ends[i]),
                                       m_sides[i],
                                       std::make_shared<const CNxConnectionOptions>(options)));
        }
    }

    bool IsOver() const { return m_sides[0].IsOver() && m_sides[1].IsOver(); }

    void Check() const {
        m_sides[0].Check();
        m_sides[1].Check();
    }

    CNxSocketBase m_client;  // while it waits to be accepted
    PairState m_state;
    std::array<Side, 2> m_sides;

private:
    CNxConnectionOptions MakeOptions(Random& random) const {
        CNxConnectionOptions options;
        // A side may take its time on a slow machine: many steps pass before it happens to close.
        options.handshakeTimeout = options.lingerTimeout = options.stallTimeout =
            CNxTimeValue(3600);
        options.highWater = 100000;
        options.lowWater = 50000;
        options.bytesPerTurn = random.OneIn(2) ? 10000 : 1 << 18;
        options.framing = m_state.m_framing;
        options.maxUnread = random.OneIn(2) ? 1000 : 1 << 20;
        if (m_state.m_isHard && random.OneIn(2)) {
            options.idleTimeout = options.stallTimeout = options.lingerTimeout = {0, 50000};
        }
        return options;
    }
};

template <class Reactor>
class ConnectionModel : public ::testing::Test {
protected:
    using Pairs = std::vector<std::unique_ptr<Pair>>;

    void OnAccepted(CNxConnectedSocket socket, const CNxEndpoint& peer) {
        const auto found = m_waiting.find(peer.GetText());
        ASSERT_NE(found, m_waiting.end());
        const int fd = socket.socket.GetHandle();
        EXPECT_TRUE(fcntl(fd, F_GETFD) == FD_CLOEXEC && (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0);
        found->second->Connect(m_loop.GetReactor(), m_random, std::move(socket));
        m_accepted.push_back(std::move(found->second));
        m_waiting.erase(found);
        if (m_random.OneIn(20)) {
            m_acceptor->Pause();
            m_isPaused = true;
        } else if (m_random.OneIn(20)) {
            m_waiting.clear();
            m_acceptor.reset();
        }
    }

    void StartOne() {
        if (m_acceptor == nullptr) {
            m_acceptor = std::make_unique<CNxAcceptor>(
                m_loop.GetReactor(), [this](CNxConnectedSocket socket, const CNxEndpoint& peer) {
                    EXPECT_FALSE(m_isPaused);
                    OnAccepted(std::move(socket), peer);
                });
            Must(m_acceptor->Open(Parse("127.0.0.1:0"), {}));
        }
        auto pair = std::make_unique<Pair>(m_random);
        pair->m_client = Connect(m_acceptor->GetEndpoint());
        CNxEndpoint from;
        Must(from.SetLocalOf(pair->m_client.GetHandle()));
        m_waiting[from.GetText()] = std::move(pair);
    }

    // On the loop's thread, while this one waits.
    void Step(size_t count) {
        std::move(m_accepted.begin(), m_accepted.end(), std::back_inserter(m_pairs));
        m_accepted.clear();
        for (size_t left = m_pairs.size() / 4 + 1; left > 0 && !m_pairs.empty(); --left) {
            m_pairs[m_random.Below(m_pairs.size())]->m_sides[m_random.Below(2)].Act();
        }
        for (size_t i = m_pairs.size(); i-- > 0;) {
            if (m_pairs[i]->IsOver()) {
                m_pairs[i]->Check();
                m_pairs.erase(m_pairs.begin() + static_cast<std::ptrdiff_t>(i));
            }
        }
        while (m_pairs.size() + m_waiting.size() + m_accepted.size() < count) {
            StartOne();
        }
        if (std::exchange(m_isPaused, false) && m_acceptor != nullptr) {
            m_acceptor->Resume();
        }
    }

    // On this one.
    void ActOutside(Random& random) {
        for (size_t left = m_pairs.empty() ? 0 : 20; left > 0; --left) {
            Pair& pair = *m_pairs[random.Below(m_pairs.size())];
            Side& side = pair.m_sides[random.Below(2)];
            if (random.OneIn(200)) {
                side.m_hasClosed = true;
                side.m_connection->CloseWhenSent();
            } else if (pair.m_state.m_isHard && random.OneIn(100)) {
                side.m_connection->CloseNow();
            } else {
                side.SendSome(1, random);
            }
        }
    }

    void FinishAll() {
        m_loop.Run([this] {
            m_acceptor.reset();
            m_waiting.clear();
            Step(0);
            for (const auto& pair : m_pairs) {
                pair->m_sides[0].Finish();
                pair->m_sides[1].Finish();
                if (!pair->m_sides[0].IsOver()) {
                    pair->m_sides[0].Close();
                }
            }
        });
        m_loop.WaitUntil([&] {
            Step(0);
            return m_pairs.empty();
        });
        EXPECT_EQ(CNxConnection::GetCount(m_loop.GetReactor()), 0U);
    }

    const unsigned m_seed = static_cast<unsigned>(GetSetting("NX_MODEL_SEED", 1));
    Random m_random{m_seed};
    std::unique_ptr<CNxAcceptor> m_acceptor;
    bool m_isPaused = false;
    std::map<std::string, std::unique_ptr<Pair>> m_waiting;  // by the client's endpoint
    Pairs m_accepted;
    Pairs m_pairs;
    LoopThread<Reactor> m_loop;
};
TYPED_TEST_SUITE(ConnectionModel, AllReactors, ReactorNames);

TYPED_TEST(ConnectionModel, EachSideSeesWhatTheOtherDid) {
    const auto count = static_cast<size_t>(GetSetting("NX_MODEL_PAIRS", 30));
    const auto end =
        std::chrono::steady_clock::now() + std::chrono::seconds(GetSetting("NX_MODEL_SECONDS", 1));
    SCOPED_TRACE("NX_MODEL_SEED=" + std::to_string(this->m_seed));
    Random random(this->m_seed + 1);
    this->m_loop.Run([&] { this->Step(count); });
    while (std::chrono::steady_clock::now() < end && !this->HasFailure()) {
        this->ActOutside(random);
        this->m_loop.Run([&] { this->Step(count); });
    }
    this->FinishAll();
}

}  // namespace
