#include <gtest/gtest.h>
#include <nx/thread/CNxSimpleMessageQueue.h>

#include <atomic>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

class Transport : public CNxSimpleMessageQueueSink {
public:
    void OnSendMessage(void* userData, const char* data, unsigned long size) override {
        m_sent.emplace_back(data, size);
        m_userData = userData;
    }

    std::vector<std::string> Take() { return std::move(m_sent); }

    std::vector<std::string> m_sent;
    void* m_userData = nullptr;
};

using Sent = std::vector<std::string>;

class SimpleMessageQueue : public ::testing::Test {
protected:
    SimpleMessageQueue() { m_queue.Init(&m_transport); }

    Transport m_transport;
    CNxSimpleMessageQueue m_queue;
};

TEST_F(SimpleMessageQueue, KeepsItsOwnCopyInOrderUntilAnswered) {
    std::string first = "first";
    EXPECT_EQ(m_queue.PostRequest(1, first.data(), first.size(), &first), NX_OK);
    EXPECT_EQ(m_transport.m_userData, &first);
    first = "other";
    m_queue.PostRequest(2, nullptr, 0, nullptr);
    m_queue.PostRequest(1, "third", 5, nullptr);
    EXPECT_EQ(m_transport.Take(), Sent({"first", "", "third"}));
    m_queue.OnTimer(nullptr);
    EXPECT_EQ(m_transport.Take(), Sent({"first", "", "third"}));
    EXPECT_EQ(m_queue.RcvResponse(1), NX_OK);
    EXPECT_EQ(m_queue.RcvResponse(7), NX_OK);
    m_queue.OnTimer(nullptr);
    EXPECT_EQ(m_transport.Take(), Sent({""}));
}

TEST_F(SimpleMessageQueue, UnansweredRequestIsSentElevenTimes) {
    m_queue.PostRequest(1, "x", 1, nullptr);
    m_queue.OnTimer(nullptr);
    m_queue.PostRequest(2, "y", 1, nullptr);
    for (int turn = 2; turn <= 10; ++turn) {
        m_queue.OnTimer(nullptr);
    }
    EXPECT_EQ(m_transport.Take().size(), 11u + 10u);
    EXPECT_EQ(m_queue.RcvResponse(1), NX_OK);
    m_queue.OnTimer(nullptr);
    m_queue.OnTimer(nullptr);
    EXPECT_EQ(m_transport.Take(), Sent({"y"}));
}

TEST_F(SimpleMessageQueue, PostsAndResponsesComeFromAnotherThreadWhileItResends) {
    std::atomic<int> posted{0};
    std::thread client([&] {
        for (; posted < 1000; ++posted) {
            m_queue.PostRequest(1, "x", 1, nullptr);
            m_queue.RcvResponse(1);
        }
    });
    while (posted < 1000) {
        m_queue.OnTimer(nullptr);
    }
    client.join();
    EXPECT_GE(m_transport.Take().size(), 1000u);
    m_queue.OnTimer(nullptr);
    EXPECT_EQ(m_transport.Take(), Sent());
}

}  // namespace
