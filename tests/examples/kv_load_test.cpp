#include <gtest/gtest.h>
#include <kv_load/Conversation.h>
#include <kv_load/LatencyHistogram.h>
#include <nx/net/CNxInetAddr.h>
#include <nx/net/CNxSocket.h>
#include <tests/examples/LocalKvServer.h>
#include <tests/support/ServerProcess.h>
#include <tests/support/TestCertificates.h>

#include <cstdint>
#include <string>
#include <vector>

namespace {

using namespace kv_load;

TEST(LatencyHistogramTest, QuantilesAreAtMostAHundredthAndTwentyEighthTooLarge) {
    constexpr std::int64_t c_count = 12345;
    LatencyHistogram histogram;
    for (std::int64_t i = c_count; i > 0; --i) {
        histogram.Record(i * i * i);
    }
    EXPECT_EQ(histogram.GetCount(), static_cast<std::uint64_t>(c_count));
    for (const unsigned perMille : {1U, 250U, 500U, 990U, 999U, 1000U}) {
        const std::uint64_t place = (c_count * perMille + 999) / 1000;
        const std::uint64_t exact = place * place * place;
        EXPECT_GE(histogram.GetQuantile(perMille), exact) << perMille;
        EXPECT_LE(histogram.GetQuantile(perMille), exact + exact / 128) << perMille;
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

TEST(ConversationTest, RightRepliesPassAndNoWrongByteDoes) {
    Conversation conversation("load:test:", 40, 10, 21);
    LocalKvServer server;
    LatencyHistogram latency;
    for (std::int64_t turn = 0; turn < 400; ++turn) {
        const std::string replies = server.Answer(Fill(conversation, turn));
        ASSERT_EQ("", Check(conversation, replies, turn + 2, latency));
    }
    EXPECT_EQ(conversation.GetOpen(), 0U);
    EXPECT_EQ(latency.GetCount(), 400U * 16);
    EXPECT_EQ(latency.GetQuantile(1), 2U);
    EXPECT_EQ(latency.GetQuantile(1000), 2U);

    const Conversation before = conversation;
    const std::string replies = server.Answer(Fill(conversation, 0));
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

// The whole program against a server that sends a reply to its one client, in one segment with the
// end of the stream if it hangs up, then nothing; it does not read what it is sent.
TEST(KvLoad, NamesWhatIsWrongWithTheServer) {
    const struct {
        std::string m_reply;
        bool m_hangsUp;
        std::string m_options;
        std::string m_message;
    } rows[] = {{"-ERR no\r\n", false, "", "came \"-ERR no"},
                {"", false, "", "the server owes 16 replies"},
                {"+OK\r\n", true, "", "closed by the server"},
                // What cannot be sent any more is no sign of life.
                {"", false, "--value-size 10000000", "stalled"}};
    for (const auto& row : rows) {
        CNxSocketTcp listener;
        CNxInetAddr address;
        ASSERT_EQ(0, listener.Open(0, CNxInetAddr("127.0.0.1", 0)));
        ASSERT_EQ(0, listen(listener.GetHandle(), 1));
        ASSERT_EQ(0, listener.GetLocalAddr(address));
        Process load("timeout 20 " KV_LOAD " --connections 1 --stall-timeout 1 " + row.m_options +
                     " --port " + std::to_string(address.GetPort()) + " 2>&1 >/dev/null");
        CNxSocketBase client;
        client.SetHandle(accept(listener.GetHandle(), nullptr, nullptr));
        send(client.GetHandle(), row.m_reply.data(), row.m_reply.size(),
             MSG_NOSIGNAL | (row.m_hangsUp ? MSG_MORE : 0));
        row.m_hangsUp ? shutdown(client.GetHandle(), SHUT_WR) : 0;
        const std::string said = load.ReadLine();
        EXPECT_NE(std::string::npos, said.find(row.m_message)) << said;
        EXPECT_EQ(1, load.Wait());
    }
}

#ifdef HAS_TLS
TEST(KvLoad, SpeaksTlsToAServerThatItTrusts) {
    const CTestCertificates certificates;
    const ServerProcess server(KV_SERVER " --port=0 --threads=2 --tls-port=0 --tls-cert " +
                               certificates.Certificate("server") + " --tls-key " +
                               certificates.Key("server"));
    const std::string port = server.ReadEndpoint().substr(std::string("127.0.0.1:").size());
    const std::string options = "--tls --requests 2000 --port " + port;
    int status = -1;
    const std::string said =
        OutputOf(KV_LOAD " --tls-ca " + certificates.Certificate("ca") + " " + options, &status);
    EXPECT_EQ(0, status);
    EXPECT_NE(std::string::npos, said.find("every reply was right")) << said;
    const std::string refused =
        OutputOf(KV_LOAD " --connections 1 " + options + " 2>&1 >/dev/null", &status);
    EXPECT_EQ(1, status);
    EXPECT_NE(std::string::npos, refused.find("certificate verify failed")) << refused;
}
#endif

}  // namespace
