#include <gtest/gtest.h>
#include <nx/thread/CNxSimpleMessageQueue.h>
#include <nx/thread/CNxThread.h>

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

// A thread that owns a timer queue which only takes notes.
class NotingThread : public CNxThread, public INxTimerQueue {
public:
    NxResult ScheduleTimer(INxTimerHandler* handler, void* token, const CNxTimeValue& interval,
                           unsigned long count) override {
        m_handler = handler;
        m_token = token;
        m_interval = interval;
        m_count = count;
        return NX_OK;
    }
    NxResult CancelTimer(INxTimerHandler* handler) override {
        return std::exchange(m_handler, nullptr) == handler ? NX_OK : NX_ERROR_NOT_FOUND;
    }
    INxTimerQueue* GetTimerQueue() override { return this; }
    void OnThreadRun() override {}

    void Fire() { m_handler->OnTimeout(CNxTimeValue(), m_token); }

    INxTimerHandler* m_handler = nullptr;
    void* m_token = nullptr;
    CNxTimeValue m_interval;
    unsigned long m_count = 1;
};

class SimpleMessageQueue : public ::testing::Test {
protected:
    SimpleMessageQueue() { m_queue.Init(&m_transport); }

    Transport m_transport;
    CNxSimpleMessageQueue m_queue;
};

TEST(SimpleMessageQueueTimer, ComesEveryTwoSecondsUntilTheQueueIsGone) {
    NotingThread thread;
    thread.CreateNotRun(CNxThreadManager::Instance()->GetAndIncreamUserType(),
                        CNxThreadManager::FLAG_JOINABLE);
    Transport transport;
    {
        CNxSimpleMessageQueue queue;
        queue.Init(&transport);
        EXPECT_EQ(thread.m_interval, CNxTimeValue(2, 0));
        EXPECT_EQ(thread.m_count, 0u);
        queue.PostRequest(1, "x", 1, nullptr);
        thread.Fire();
        EXPECT_EQ(transport.Take(), Sent({"x", "x"}));
    }
    EXPECT_EQ(thread.m_handler, nullptr);
}

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

TEST_F(SimpleMessageQueue, RefusesWhatItCannotSend) {
    EXPECT_EQ(m_queue.PostRequest(1, nullptr, 1, nullptr), NX_ERROR_INVALID_ARG);
    m_queue.Init(nullptr);
    EXPECT_EQ(m_queue.PostRequest(1, "x", 1, nullptr), NX_ERROR_NOT_INITIALIZED);
    m_queue.Init(&m_transport);
    m_queue.OnTimer(nullptr);
    EXPECT_EQ(m_transport.Take(), Sent());
}

TEST_F(SimpleMessageQueue, PostsAndResponsesComeFromOtherThreadsWhileItResends) {
    std::atomic<int> running{2};
    std::vector<std::thread> threads;
    for (unsigned int id : {1u, 2u}) {
        threads.emplace_back([this, id, &running] {
            for (int i = 0; i < 1000; ++i) {
                m_queue.PostRequest(id, "x", 1, nullptr);
                m_queue.RcvResponse(id);
            }
            --running;
        });
    }
    while (running != 0) {
        m_queue.OnTimer(nullptr);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_GE(m_transport.Take().size(), 2000u);
    m_queue.OnTimer(nullptr);
    EXPECT_EQ(m_transport.Take(), Sent());
}

}  // namespace
