#include <gtest/gtest.h>
#include <kv_load/LatencyHistogram.h>
#include <kv_load/Pipeline.h>
#include <kv_load/Workload.h>
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
    EXPECT_EQ(model.back(), histogram.GetMax());
    for (const unsigned perMille : {1U, 250U, 500U, 990U, 999U, 1000U}) {
        const std::uint64_t exact = model[(model.size() * perMille + 999) / 1000 - 1];
        const std::uint64_t told = histogram.GetQuantile(perMille);
        EXPECT_GE(told, exact) << perMille;
        EXPECT_LE(told, exact + exact / 128) << perMille;
    }
}

constexpr std::size_t c_depth = 16;

// Fills the pipeline; the bytes of the new requests.
std::string Fill(Pipeline& pipeline, const Workload& workload, std::int64_t sentAt) {
    std::string requests;
    std::vector<char> bytes(workload.GetMaxRequestSize());
    while (!pipeline.IsFull()) {
        requests.append(bytes.data(), pipeline.WriteNext(bytes.data()));
    }
    pipeline.MarkSent(sentAt);
    return requests;
}

TEST(PipelineTest, RightRepliesPassHoweverTheyAreCutAndNoWrongByteDoes) {
    Workload workload("load:test:", 40, 10, 21);
    Pipeline pipeline(workload, c_depth);
    LocalKvServer server;
    LatencyHistogram latency;
    std::mt19937 random(11);
    std::string replies;
    for (std::int64_t turn = 0; turn < 400; ++turn) {
        replies += server.Answer(Fill(pipeline, workload, turn));
        // All but a part of the last replies comes before the next requests.
        while (replies.size() > 30) {
            const std::size_t part = 1 + random() % 40 % replies.size();
            ASSERT_TRUE(pipeline.Check(replies.data(), part, turn + 2, latency))
                << pipeline.DescribeMismatch();
            replies.erase(0, part);
        }
    }
    ASSERT_TRUE(pipeline.Check(replies.data(), replies.size(), 402, latency));
    EXPECT_TRUE(pipeline.IsEmpty());
    EXPECT_GE(latency.GetQuantile(0), 2U);
    EXPECT_LE(latency.GetMax(), 4U);
    EXPECT_GT(latency.GetCount(), 5000U);

    const Workload before = workload;
    replies = server.Answer(Fill(pipeline, workload, 0));
    for (std::size_t wrong = 0; wrong < replies.size(); ++wrong) {
        Workload again = before;
        Pipeline other(again, c_depth);
        Fill(other, again, 0);
        std::string bytes = replies;
        bytes[wrong] = static_cast<char>(bytes[wrong] ^ 1);
        const std::size_t cut = wrong / 2;
        ASSERT_TRUE(other.Check(bytes.data(), cut, 0, latency));
        ASSERT_FALSE(other.Check(bytes.data() + cut, bytes.size() - cut, 0, latency)) << wrong;
        EXPECT_NE("", other.DescribeMismatch());
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
