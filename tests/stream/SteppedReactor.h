// A reactor whose loop leads through the steps of a test.
#pragma once

#include <functional>
#include <vector>

#include "../reactor/ReactorSupport.h"

template <class Reactor>
class SteppedReactor : public OpenReactor<Reactor> {
protected:
    struct Step {
        std::function<void()> begin;
        // One that never is runs into the time limit of the test.
        std::function<bool()> isDone;
    };

    // Each begins on the loop when the one before is done; the loop ends after the last.
    void RunSteps(const std::vector<Step>& steps) {
        size_t at = 0;
        bool isBegun = false;
        Timer poll([&] {
            for (; at < steps.size(); ++at, isBegun = false) {
                if (!std::exchange(isBegun, true)) {
                    steps[at].begin();
                }
                if (!steps[at].isDone()) {
                    return;
                }
            }
            this->Stop();
        });
        ASSERT_EQ(this->m_reactor.ScheduleTimer(&poll, nullptr, {0, 1000}, 0), NX_OK);
        this->Run();
        this->m_reactor.CancelTimer(&poll);
    }
};
