// What a child of fork(2) has of its parent's threads, and how it ends. Every parent is a process
// of its own; a child that hangs is ended by the time limit of the test.
#include <nx/foundation/CNxCleanUpBase.h>
#include <nx/reactor/CNxReactorSelect.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ThreadSupport.h"

namespace {

bool s_isChild = false;
int s_ended = 0;

class CountsItsEnd : public CNxCleanUpBase {
public:
    ~CountsItsEnd() override { ++s_ended; }
};

class Parent {
public:
    Parent() {
        // After the tear-down. What follows in a child is a leak checker that may wait for ever for
        // what another thread held at the fork.
        std::atexit([] {
            if (s_isChild) {
                std::_Exit(s_ended);
            }
        });
        Must(Manager()->InitMainThread(0, nullptr));
        m_worker = StartWorker();
        StartNetwork();
        // Never destroyed: timers call until the tear-down, which comes after static objects are
        // gone.
        static auto* const sink = new CountingSink;
        static auto* const timer = new CNxTimerPreciseWrapperID;
        m_timer = timer;
        Must(m_timer->Schedule(sink, CNxTimeValue(0, 10000), 0, m_worker->GetThreadType()));
        new CountsItsEnd;
    }

    // How many clean-up objects a child has ended that does this and exits; -1 when it ends
    // otherwise.
    static int EndedByChild(const std::function<void()>& action) {
        const pid_t child = fork();
        if (child == 0) {
            s_isChild = true;
            action();
            std::exit(100);
        }
        int status = 0;
        waitpid(child, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    CNxThread* m_worker = nullptr;
    CNxTimerPreciseWrapperID* m_timer = nullptr;
};

using ForkedChild = ProcessEnd;

void StopHere(bool asExpected) {
    if (!asExpected) {
        std::abort();
    }
}

// A sanitizer keeps a process at its end or has an allocator that is not made for forks among
// threads.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int c_children = 5;
#else
constexpr int c_children = 100;
#endif

// Whatever the parent's other threads hold at the moment of the fork.
TEST_F(ForkedChild, HasNeitherTheThreadsNorTheLocksNorTheCleanUpOfItsParentButItsOwn) {
    const auto body = [] {
        Parent parent;
        // Forked within an event, for whose end the parent's main thread waits.
        Must(NxSendCall(*parent.m_worker->GetEventQueue(),
                        [] { StopHere(Parent::EndedByChild([] {}) == 0); }));
        std::atomic<bool> stop{false};
        CNxReactorSelect reactor;
        Must(reactor.Open());
        // The child has no stack that leads to it. Made before any fork: with the lock of the exit
        // handlers held a child could not end.
        static CNxTimerPreciseWrapperID timer;
        std::thread busy([&] {
            while (!stop) {
                Manager()->GetAndIncreamUserType();
                timer.Cancel();
                reactor.GetPendingEventsCount();
            }
        });
        const auto look = [&] {
            Manager()->GetAndIncreamUserType();
            parent.m_timer->Cancel();
            reactor.Close();
            StopHere(parent.m_worker->Join() == NX_ERROR_FAILURE && !parent.m_worker->IsRunning());
            StopHere(Manager()->GetThread(NX_THREAD_NETWORK) == nullptr);
            Must(Manager()->StopAllThreads(nullptr));
            Must(Manager()->JoinAllThreads());
        };
        for (int i = 0; i < c_children; ++i) {
            StopHere(Parent::EndedByChild(look) == 0);
        }
        stop = true;
        busy.join();
#if !defined(__SANITIZE_THREAD__)  // which ends a forked child that starts a thread
        const auto live = [&parent] {
            Must(NxSendCall(*StartNetwork()->GetEventQueue(), [] {}));
            static CountingSink sink;
            static auto* const own = new CNxTimerPreciseWrapperID;
            Must(own->Schedule(&sink, CNxTimeValue(0, 10000), 0, NX_THREAD_NETWORK));
            YieldUntil([] { return sink.m_calls != 0; });
            parent.m_timer->Cancel();
            new CountsItsEnd;
        };
        StopHere(Parent::EndedByChild(live) == 1);
#endif
    };
    ExpectEnd(body);
}

}  // namespace
