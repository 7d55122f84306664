// A reactor whose loop runs until what a test waits for has come.
#pragma once

#include "../reactor/ReactorSupport.h"

template <class Reactor>
class UntilReactor : public OpenReactor<Reactor> {
protected:
    // Asked on the loop again and again; one that never is runs into the time limit of the test.
    template <class Condition>
    void RunUntil(Condition isDone) {
        Timer poll([&] {
            if (isDone()) {
                this->Stop();
            }
        });
        ASSERT_EQ(this->m_reactor.ScheduleTimer(&poll, nullptr, {0, 1000}, 0), NX_OK);
        this->Run();
        this->m_reactor.CancelTimer(&poll);
    }
};
