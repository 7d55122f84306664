// An event that calls a function.
#pragma once

#include <nx/event/INxEventQueue.h>

#include <utility>

namespace examples {

template <class Function>
class CallEvent : public INxEvent {
public:
    explicit CallEvent(Function function) : m_function(std::move(function)) {}

    NxResult OnEventFire() override {
        m_function();
        return NX_OK;
    }

private:
    Function m_function;
};

// Has the thread that owns the queue call the function later; the function is destroyed uncalled
// when the queue refuses or discards it.
template <class Function>
NxResult CallLater(INxEventQueue& queue, Function function) {
    return queue.PostEvent(new CallEvent<Function>(std::move(function)),
                           INxEventQueue::PRIORITY_NORMAL);
}

// Has the thread that owns the queue call the function, and waits for that. NX_OK when it did.
template <class Function>
NxResult CallOn(INxEventQueue& queue, Function function) {
    return queue.SendEvent(new CallEvent<Function>(std::move(function)));
}

}  // namespace examples
