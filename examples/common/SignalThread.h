// Turns signals into calls on the thread of an event queue.
#pragma once

#include <nx/event/INxEventQueue.h>

#include <atomic>
#include <csignal>
#include <functional>
#include <initializer_list>
#include <thread>

namespace examples {

// A thread that waits for signals and posts each as an event, so that it needs no signal handler
// and nothing of the reactor but its queue; and no descriptor, a failed read of which could lose a
// signal. A post that fails for want of memory is tried again.
//
// Made, opened and closed on the main thread; destroyed before the queue.
class SignalThread {
public:
    // TO BE MADE BEFORE THERE IS ANY OTHER THREAD: blocks the signals, which the threads started
    // later inherit. From here on none is lost; a signal that comes again before it was taken
    // counts once.
    explicit SignalThread(std::initializer_list<int> signals);
    ~SignalThread() { Close(); }
    SignalThread(const SignalThread&) = delete;
    SignalThread& operator=(const SignalThread&) = delete;

    // From now on the queue's thread calls `onSignal` with every signal, those that came since the
    // construction too; before that a thread of its own calls `onTaken`, however busy the queue's
    // is. To be called once. False when no thread can be started.
    [[nodiscard]] bool Open(INxEventQueue& queue, std::function<void(int)> onSignal,
                            std::function<void(int)> onTaken = {});

    // Nothing is posted any more, but what was posted still calls: what `onSignal` uses may go
    // after the next event that is sent to the queue, or when the queue's thread was joined.
    void Close();

private:
    void Run(INxEventQueue& queue);
    void Tell(INxEventQueue& queue, int signo);

    sigset_t m_signals;
    const int m_anySignal;  // to wake the thread with
    std::function<void(int)> m_onSignal;
    std::function<void(int)> m_onTaken;
    std::atomic<bool> m_isClosing{false};
    std::thread m_thread;
};

}  // namespace examples
