// An event that calls a function.
#pragma once

#include <nx/event/INxEventQueue.h>

#include <new>
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

// Has the thread that owns the queue call the function later. The function, which must move without
// throwing, is destroyed uncalled when the queue refuses or discards it, or when there is no memory
// (NX_ERROR_FAILURE).
template <class Function>
NxResult CallLater(INxEventQueue& queue, Function function) {
    auto* const event = new (std::nothrow) CallEvent<Function>(std::move(function));
    return event != nullptr ? queue.PostEvent(event, INxEventQueue::PRIORITY_NORMAL)
                            : NX_ERROR_FAILURE;
}

// Has the thread that owns the queue call the function, and waits for that. NX_OK when it did.
template <class Function>
NxResult CallOn(INxEventQueue& queue, Function function) {
    return queue.SendEvent(new CallEvent<Function>(std::move(function)));
}

}  // namespace examples
