// A function as an event: what another thread is to do is written where it is asked for, without a
// class of its own.
//
//     NxPostCall(*worker->GetEventQueue(), [this, job = std::move(job)] { Run(*job); });
//
//     const auto size = NxSendCall(queue, [&] { return table.size(); });
//     if (size) { Print(size.GetValue()); }
#pragma once

#include <functional>
#include <new>
#include <optional>
#include <type_traits>
#include <utility>

#include <nx/event/INxEventQueue.h>

// What a function returned that ran on another thread, or the result code why it did not run.
// Belongs to whoever has it.
template <class Value>
class CNxCallResultT {
public:
    explicit CNxCallResultT(NxResult result) : m_result(result) {}
    CNxCallResultT(NxResult result, std::optional<Value>&& value)
        : m_result(result), m_value(std::move(value)) {}

    // NX_OK when the function ran: then there is a value.
    NxResult GetResult() const { return m_result; }
    bool IsOk() const { return m_value.has_value(); }
    explicit operator bool() const { return IsOk(); }

    // Throws std::bad_optional_access when there is none.
    Value& GetValue() & { return m_value.value(); }
    const Value& GetValue() const& { return m_value.value(); }
    Value&& GetValue() && { return std::move(m_value).value(); }

private:
    NxResult m_result;
    std::optional<Value> m_value;
};

// The event of NxPostCall.
template <class Function>
class CNxCallEventT final : public INxEvent {
public:
    explicit CNxCallEventT(Function&& function) : m_function(std::move(function)) {}

    NxResult OnEventFire() override {
        static_cast<void>(std::invoke(m_function));
        return NX_OK;
    }

private:
    Function m_function;
};

// The event of NxSendCall. Lies on the sender's stack: a queue is done with it before the send
// returns.
template <class Function>
class CNxCallOnStackT final : public INxEvent {
public:
    explicit CNxCallOnStackT(Function& function) : m_function(function) {}

    template <class Queue>
    auto Send(Queue& queue) {
        const NxResult sent = queue.SendEvent(this);
        if constexpr (c_givesCode) {
            return sent;
        } else {
            return CNxCallResultT<Value>(sent, std::move(m_value));
        }
    }

    NxResult OnEventFire() override {
        if constexpr (std::is_void_v<Returned>) {
            std::invoke(m_function);
        } else if constexpr (c_givesCode) {
            return std::invoke(m_function);
        } else {
            m_value.emplace(std::invoke(m_function));
        }
        return NX_OK;
    }
    void OnDestorySelf() override {}

private:
    using Returned = std::invoke_result_t<Function&>;
    static constexpr bool c_givesCode =
        std::is_void_v<Returned> || std::is_same_v<std::decay_t<Returned>, NxResult>;
    using Value = std::conditional_t<c_givesCode, NxResult, std::decay_t<Returned>>;

    Function& m_function;
    std::optional<Value> m_value;
};

// Has the thread that owns the queue, an INxEventQueue of any class, call the function, with no
// argument, later. What it returns is dropped. Any thread; the function may be one that can only be
// moved.
// As INxEventQueue::PostEvent: NX_OK; NX_ERROR_NOT_INITIALIZED when the queue is stopped;
// NX_ERROR_FAILURE without memory. The function is destroyed in any case, uncalled when the queue
// refuses or discards it: on the caller's thread, or where the queue discards it; after its call on
// the thread that called it. One that throws ends the process, as does any other event.
// Needs one allocation, of the recycled kind (CNxRecycled) up to 120 bytes of captures.
template <class Queue, class Function>
NxResult NxPostCall(Queue& queue, Function function) {
    auto* const event = new (std::nothrow) CNxCallEventT<Function>(std::move(function));
    return event != nullptr ? queue.PostEvent(event, INxEventQueue::PRIORITY_NORMAL)
                            : NX_ERROR_FAILURE;
}

// Has the thread that owns the queue call the function, with no argument, and waits until it has;
// on that thread itself calls it at once. The function stays the caller's. Any thread. Allocates
// nothing.
// Returns for a function that
//   returns NxResult: that, or why it did not run, as one code. Note that NxResult is unsigned int;
//   returns nothing: NX_OK, or why it did not run;
//   returns anything else: a CNxCallResultT with its value, a copy of it for a reference.
// Why it did not run is what INxEventQueue::SendEvent says: NX_ERROR_NOT_INITIALIZED for a stopped
// queue, NX_ERROR_NOT_AVAILABLE when it was discarded, NX_ERROR_FAILURE without memory.
template <class Queue, class Function>
auto NxSendCall(Queue& queue, Function&& function) {
    return CNxCallOnStackT<std::remove_reference_t<Function>>(function).Send(queue);
}
