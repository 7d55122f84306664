// The events of descriptors, and the handler that gets them from a reactor.
#pragma once

// An event mask is a signed 64-bit set of these bits.

// Input on a listening socket; the same as NX_MASK_READ.
inline constexpr long NX_MASK_ACCEPT = 0x1;
// The outcome of a non-blocking connect.
inline constexpr long NX_MASK_CONNECT = 0x2;
// Data can be read.
inline constexpr long NX_MASK_READ = 0x4;
// Data can be written.
inline constexpr long NX_MASK_WRITE = 0x8;
// What can be registered; 0x10 and 0x20 are accepted and never dispatched.
inline constexpr long NX_MASK_ALL_EVENTS = 0x3F;
// In a removal: call OnClose afterwards.
inline constexpr long NX_MASK_SHOULD_CALL = 0x40;
// In a dispatch: the descriptor failed; remove the handler and call OnClose.
inline constexpr long NX_MASK_CLOSE = 0x80;
// In a notification of descriptor -1: run the posted events.
inline constexpr long NX_MASK_EVENT_QUEUE = 0x100;

// What leads to OnInput, and what to OnOutput.
inline constexpr long NX_MASK_INPUT = NX_MASK_ACCEPT | NX_MASK_READ;
inline constexpr long NX_MASK_OUTPUT = NX_MASK_CONNECT | NX_MASK_WRITE;

// Serves one descriptor on a reactor's thread. Implemented by users, never owned by the reactor.
//
// OnInput and OnOutput answer 0 to stay registered; any other answer makes the reactor remove the
// handler and call its OnClose. With the edge-triggered reactors (epoll, real-time signals) they
// read (write) until the call would block, else they are not called again before new data (room)
// arrives.
class INxEventHandler {
public:
    // The descriptor. Must not change while the handler is registered.
    virtual int GetHandle() const { return -1; }

    virtual int OnInput(int /*fd*/) { return -1; }
    virtual int OnOutput(int /*fd*/) { return -1; }

    // Not called by any reactor of this library.
    virtual int OnException(int /*fd*/) { return -1; }

    // The reactor dropped the handler: its descriptor failed, or OnInput or OnOutput answered other
    // than 0. `mask` is what it was registered with. Called once, after the removal; the
    // handler closes its descriptor here and may delete itself. The answer is not used.
    virtual int OnClose(int /*fd*/, long /*mask*/) { return -1; }

    virtual ~INxEventHandler() = default;
};
