#include <gtest/gtest.h>
#include <nx/thread/CNxThreadHeartBeat.h>
#include <nx/thread/CNxTimerWrapperID.h>

#include "../support/SimulatedClock.h"

namespace {

struct DeletingSink : CNxTimerWrapperIDSink {
    void OnTimer(CNxTimerWrapperID* id) override {
        ++m_calls;
        delete id;
    }
    int m_calls = 0;
};

TEST(TimerWrapperID, MayBeDestroyedWhileScheduledAndFromItsOwnCallback) {
    SimulatedClock clock;
    auto* const thread = new CNxThreadHeartBeat;
    ASSERT_EQ(thread->CreateNotRun(CNxThreadManager::Instance()->GetAndIncreamUserType(),
                                   CNxThreadManager::FLAG_JOINABLE),
              NX_OK);
    thread->OnThreadInit();
    DeletingSink sink;
    const CNxTimeValue second(1);
    {
        CNxTimerWrapperID scheduled;
        EXPECT_EQ(scheduled.Schedule(&sink, second, 0), NX_OK);
        EXPECT_EQ(scheduled.Schedule(&sink, second, 2), NX_ERROR_FOUND);
    }
    EXPECT_EQ((new CNxTimerWrapperID)->Schedule(&sink, second, 0), NX_OK);
    for (int pass = 0; pass < 2; ++pass) {
        clock.Advance(1000000);
        thread->DoHeartBeat();
    }
    EXPECT_EQ(sink.m_calls, 1);
    thread->Destory(0);
}

}  // namespace
