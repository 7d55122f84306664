// What a descriptor can be ready for, and the handler that a reactor calls when it is.
#pragma once

// A mask is a signed 64-bit set of these bits. In a registration it says what the handler waits
// for, in a removal what it gives up, in a dispatch what the descriptor is ready for.

// Input on a listening socket; the same as NX_MASK_READ.
inline constexpr long NX_MASK_ACCEPT = 0x1;
// The outcome of a non-blocking connect.
inline constexpr long NX_MASK_CONNECT = 0x2;
// Data can be read.
inline constexpr long NX_MASK_READ = 0x4;
// Data can be written.
inline constexpr long NX_MASK_WRITE = 0x8;
// All that can be registered; 0x10 and 0x20 are accepted and never dispatched.
inline constexpr long NX_MASK_ALL_EVENTS = 0x3F;
// In a removal within the reactor: call OnClose afterwards. RemoveHandler does not heed it.
inline constexpr long NX_MASK_SHOULD_CALL = 0x40;
// In a dispatch: the descriptor failed; remove the handler and call OnClose.
inline constexpr long NX_MASK_CLOSE = 0x80;
// In a notification of descriptor -1: fire the events posted to the reactor.
inline constexpr long NX_MASK_EVENT_QUEUE = 0x100;

// What leads to OnInput, and what to OnOutput.
inline constexpr long NX_MASK_INPUT = NX_MASK_ACCEPT | NX_MASK_READ;
inline constexpr long NX_MASK_OUTPUT = NX_MASK_CONNECT | NX_MASK_WRITE;

// Serves one descriptor on a reactor's thread. Implemented by users, never owned by the reactor. An
// exception that leaves a callback ends the process with a line that names the callback.
//
// With the edge-triggered reactors (epoll, real-time signals) OnInput and OnOutput read (write)
// until the call would block, else they are not called again before new data (room) arrives. They
// return 0 to stay registered; after anything else the reactor removes the handler and calls its
// OnClose.
class INxEventHandler {
public:
    // The descriptor. Must not change while the handler is registered.
    virtual int GetHandle() const { return -1; }

    virtual int OnInput(int /*fd*/) { return -1; }
    virtual int OnOutput(int /*fd*/) { return -1; }

    // Not called by any reactor of this library.
    virtual int OnException(int /*fd*/) { return -1; }

    // The reactor dropped the handler: its descriptor failed, or OnInput or OnOutput returned other
    // than 0. `mask` is what it was registered with. Called once, after the removal; the handler
    // closes its descriptor here and may delete itself. What it returns is not used.
    virtual int OnClose(int /*fd*/, long /*mask*/) { return -1; }

    virtual ~INxEventHandler() = default;
};
