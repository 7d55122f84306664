#include <gtest/gtest.h>
#include <nx/thread/CNxSimpleMessageQueue.h>

#include <atomic>
#include <string>
#include <thread>
#include <utility>

namespace {

struct Transport : CNxSimpleMessageQueueSink {
    void OnSendMessage(void* userData, const char* data, unsigned long size) override {
        m_sent += std::string(data, size) + ' ';
        m_userData = userData;
    }

    std::string Take() { return std::exchange(m_sent, ""); }

    std::string m_sent;
    void* m_userData = nullptr;
};

TEST(SimpleMessageQueue, SendsItsOwnCopyElevenTimesInOrderUnlessItIsAnswered) {
    Transport transport;
    CNxSimpleMessageQueue queue;
    queue.Init(&transport);
    std::string first = "first";
    EXPECT_EQ(queue.PostRequest(1, first.data(), first.size(), &first), NX_OK);
    EXPECT_EQ(transport.m_userData, &first);
    first = "other";
    queue.OnTimer(nullptr);
    EXPECT_EQ(queue.PostRequest(2, nullptr, 0, nullptr), NX_OK);
    EXPECT_EQ(queue.PostRequest(3, "third", 5, nullptr), NX_OK);
    EXPECT_EQ(queue.PostRequest(2, "fourth", 6, nullptr), NX_OK);
    queue.OnTimer(nullptr);
    EXPECT_EQ(transport.Take(), "first first  third fourth first  third fourth ");
    EXPECT_EQ(queue.RcvResponse(2), NX_OK);
    EXPECT_EQ(queue.RcvResponse(7), NX_OK);
    for (int turn = 3; turn <= 10; ++turn) {
        queue.OnTimer(nullptr);
        EXPECT_EQ(transport.Take(), "first third ");
    }
    queue.OnTimer(nullptr);
    EXPECT_EQ(transport.Take(), "third ");
    EXPECT_EQ(queue.RcvResponse(3), NX_OK);
    queue.OnTimer(nullptr);
    EXPECT_EQ(transport.Take(), "");
}

TEST(SimpleMessageQueue, PostsAndResponsesComeFromAnotherThreadWhileItResends) {
    Transport transport;
    CNxSimpleMessageQueue queue;
    queue.Init(&transport);
    std::atomic<int> posted{0};
    std::thread client([&] {
        for (; posted < 1000; ++posted) {
            EXPECT_EQ(queue.PostRequest(1, "x", 1, nullptr), NX_OK);
            EXPECT_EQ(queue.RcvResponse(1), NX_OK);
        }
    });
    while (posted < 1000) {
        queue.OnTimer(nullptr);
    }
    client.join();
    EXPECT_GE(transport.Take().size(), 2000u);
    queue.OnTimer(nullptr);
    EXPECT_EQ(transport.Take(), "");
}

}  // namespace
