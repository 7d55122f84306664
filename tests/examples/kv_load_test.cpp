#include <gtest/gtest.h>
#include <kv_load/Conversation.h>
#include <kv_load/LatencyHistogram.h>
#include <nx/net/CNxInetAddr.h>
#include <nx/net/CNxSocket.h>
#include <sys/socket.h>
#include <tests/examples/LocalKvServer.h>
#include <tests/support/TempFolder.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace kv_load;

TEST(LatencyHistogramTest, QuantilesFollowASortedList) {
    std::mt19937_64 random(7);
    std::vector<std::uint64_t> model;
    LatencyHistogram histogram;
    for (int i = 0; i < 12345; ++i) {
        const std::uint64_t value = random() >> (24 + random() % 40);
        model.push_back(value);
        histogram.Record(static_cast<std::int64_t>(value));
    }
    std::sort(model.begin(), model.end());
    EXPECT_EQ(model.size(), histogram.GetCount());
    EXPECT_EQ(model.back(), histogram.GetQuantile(1000));
    for (const unsigned perMille : {1U, 250U, 500U, 990U, 999U, 1000U}) {
        const std::uint64_t exact = model[(model.size() * perMille + 999) / 1000 - 1];
        const std::uint64_t told = histogram.GetQuantile(perMille);
        EXPECT_GE(told, exact) << perMille;
        EXPECT_LE(told, exact + exact / 128) << perMille;
    }
}

// Asks until 16 requests are open; the bytes of the new ones.
std::string Fill(Conversation& conversation, std::int64_t now) {
    CNxMessageChain requests;
    while (conversation.GetOpen() < 16) {
        conversation.Ask(requests, now);
    }
    return requests.ToString();
}

std::string Check(Conversation& conversation, const std::string& came, std::int64_t now,
                  LatencyHistogram& latency) {
    CNxMessageChain received(came);
    return conversation.Check(received, now, latency);
}

TEST(ConversationTest, RightRepliesPassHoweverTheyAreCutAndNoWrongByteDoes) {
    Conversation conversation("load:test:", 40, 10, 21);
    LocalKvServer server;
    LatencyHistogram latency;
    std::mt19937 random(11);
    std::string replies;
    for (std::int64_t turn = 0; turn < 400; ++turn) {
        replies += server.Answer(Fill(conversation, turn));
        // All but a part of the last replies comes before the next requests.
        while (replies.size() > 30) {
            const std::size_t part = 1 + random() % 40 % replies.size();
            ASSERT_EQ("", Check(conversation, replies.substr(0, part), turn + 2, latency));
            replies.erase(0, part);
        }
    }
    ASSERT_EQ("", Check(conversation, replies, 402, latency));
    EXPECT_EQ(0U, conversation.GetOpen());
    EXPECT_GE(latency.GetQuantile(1), 2U);
    EXPECT_LE(latency.GetQuantile(1000), 4U);
    EXPECT_GT(latency.GetCount(), 5000U);

    const Conversation before = conversation;
    replies = server.Answer(Fill(conversation, 0));
    for (std::size_t wrong = 0; wrong < replies.size(); ++wrong) {
        Conversation other = before;
        Fill(other, 0);
        std::string bytes = replies;
        bytes[wrong] = static_cast<char>(bytes[wrong] ^ 1);
        const std::size_t cut = wrong / 2;
        ASSERT_EQ("", Check(other, bytes.substr(0, cut), 0, latency));
        ASSERT_NE("", Check(other, bytes.substr(cut), 0, latency)) << wrong;
    }
}

// The whole program against a server that sends `reply` to its one client, in one segment with the
// end of the stream if it hangs up, then nothing; it does not read what it is sent.
void ExpectFailureAt(const std::string& reply, bool hangUp, const std::string& options,
                     const std::string& message) {
    CNxSocketTcp listener;
    CNxInetAddr address;
    ASSERT_EQ(0, listener.Open(0, CNxInetAddr("127.0.0.1", 0)));
    ASSERT_EQ(0, listen(listener.GetHandle(), 1));
    ASSERT_EQ(0, listener.GetLocalAddr(address));
    CNxSocketBase client;
    std::thread server([&] {
        client.SetHandle(accept(listener.GetHandle(), nullptr, nullptr));
        const int fd = client.GetHandle();
        send(fd, reply.data(), reply.size(), MSG_NOSIGNAL | (hangUp ? MSG_MORE : 0));
        if (hangUp) {
            shutdown(fd, SHUT_WR);
        }
    });
    int status = 0;
    const std::string said =
        OutputOf("timeout 20 " KV_LOAD " --connections 1 --stall-timeout 1 " + options +
                     " --port " + std::to_string(address.GetPort()) + " 2>&1 >/dev/null",
                 &status);
    server.join();
    EXPECT_EQ(1, status);
    EXPECT_NE(std::string::npos, said.find(message)) << said;
}

TEST(KvLoad, NamesWhatIsWrongWithTheServer) {
    ExpectFailureAt("-ERR no\r\n", false, "", "came \"-ERR no");
    ExpectFailureAt("", false, "", "the server owes 16 replies");
    ExpectFailureAt("+OK\r\n", true, "", "closed by the server");
    // What cannot be sent any more is no sign of life.
    ExpectFailureAt("", false, "--value-size 10000000", "stalled");
}

}  // namespace
