#include <gtest/gtest.h>
#include <nx/thread/CNxThreadHeartBeat.h>
#include <nx/timer/CNxTimerWrapperID.h>

#include <functional>
#include <memory>

#include "../support/SimulatedClock.h"

namespace {

class Sink : public CNxTimerWrapperIDSink {
public:
    void OnTimer(CNxTimerWrapperID* id) override {
        ++m_calls;
        if (m_action) {
            m_action(id);
        }
    }

    int m_calls = 0;
    std::function<void(CNxTimerWrapperID*)> m_action;
};

const CNxTimeValue c_second(1);

// The test's own thread, with timers that fire when the test says so.
class TimerWrapperID : public ::testing::Test {
protected:
    void SetUp() override {
        m_thread->CreateNotRun(CNxThreadManager::Instance()->GetAndIncreamUserType(),
                               CNxThreadManager::FLAG_JOINABLE);
        m_thread->OnThreadInit();
    }
    ~TimerWrapperID() override { m_thread->Destory(0); }

    int CallsAfterASecond() {
        const int before = m_sink.m_calls;
        m_clock.Advance(1000000);
        m_thread->DoHeartBeat();
        return m_sink.m_calls - before;
    }

    SimulatedClock m_clock;
    CNxThreadHeartBeat* const m_thread = new CNxThreadHeartBeat;
    Sink m_sink;
};

TEST(TimerWrapperIDWithoutThread, IsRefused) {
    Sink sink;
    CNxTimerWrapperID id;
    EXPECT_EQ(id.Cancel(), NX_OK);
    EXPECT_EQ(id.Schedule(&sink, c_second, 1), NX_ERROR_NULL_POINTER);
}

TEST_F(TimerWrapperID, AnswersWhatTheQueueAnswers) {
    CNxTimerWrapperID id;
    EXPECT_EQ(id.Schedule(&m_sink, CNxTimeValue(), 2), NX_ERROR_INVALID_ARG);
    EXPECT_EQ(id.Cancel(), NX_ERROR_NOT_FOUND);
    EXPECT_EQ(id.Schedule(&m_sink, c_second, 0), NX_OK);
    EXPECT_EQ(id.Schedule(&m_sink, c_second, 2), NX_ERROR_FOUND);
    EXPECT_EQ(CallsAfterASecond(), 1);
    EXPECT_EQ(CallsAfterASecond(), 1);
    EXPECT_EQ(CallsAfterASecond(), 0);
    EXPECT_EQ(id.Cancel(), NX_ERROR_NOT_FOUND);
    EXPECT_EQ(id.Cancel(), NX_OK);
    EXPECT_EQ(id.Schedule(nullptr, c_second, 1), NX_OK);
    EXPECT_EQ(CallsAfterASecond(), 0);
}

TEST_F(TimerWrapperID, MayBeDestroyedWhileScheduledAndFromItsOwnCallback) {
    auto id = std::make_unique<CNxTimerWrapperID>();
    id->Schedule(&m_sink, c_second, 0);
    id.reset();
    EXPECT_EQ(CallsAfterASecond(), 0);
    m_sink.m_action = [](CNxTimerWrapperID* fired) { delete fired; };
    (new CNxTimerWrapperID)->Schedule(&m_sink, c_second, 0);
    EXPECT_EQ(CallsAfterASecond(), 1);
    EXPECT_EQ(CallsAfterASecond(), 0);
}

}  // namespace
