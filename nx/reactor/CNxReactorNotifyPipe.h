// How any thread wakes a reactor that waits, and hands it a descriptor and a mask to dispatch.
#pragma once

#include <atomic>
#include <cstddef>

#include <nx/foundation/CNxMutexThread.h>
#include <nx/reactor/CNxPipe.h>
#include <nx/reactor/INxEventHandler.h>

class CNxReactorBase;

// A member of its reactor, registered there like any other handler for the reading end of a
// CNxPipe. Each notification is one record of 16 bytes in host byte order, written with one call:
//     0  descriptor, signed 32 bits; -1 stands for the posted events
//     4  zero
//     8  mask, signed 64 bits
// Open, Close and OnInput belong to the reactor's thread; Notify may be called on any thread, also
// while the pipe is being closed: it never writes to a descriptor that is no longer the pipe's.
class CNxReactorNotifyPipe : public INxEventHandler {
public:
    CNxReactorNotifyPipe() = default;
    ~CNxReactorNotifyPipe() override;

    CNxReactorNotifyPipe(const CNxReactorNotifyPipe&) = delete;
    CNxReactorNotifyPipe& operator=(const CNxReactorNotifyPipe&) = delete;

    // Opens the pipe, which must be closed, and registers it. NX_OK, NX_ERROR_INVALID_ARG for null,
    // NX_ERROR_FAILURE when the pipe cannot be made non-blocking, else the result of CNxPipe::Open
    // or RegisterHandler (NX_ERROR_FOUND counts as a failure here). After a failure it is closed.
    [[nodiscard]] NxResult Open(CNxReactorBase* reactor);

    // Takes the registration back and closes the pipe; the result of CNxPipe::Close. Closed in any
    // case.
    NxResult Close();

    // Has the reactor dispatch `mask` to the descriptor of `handler`, or to -1 for null. The pipe
    // itself as the handler, with mask 0, only wakes the reactor. Never blocks.
    // NX_OK, NX_ERROR_NOT_INITIALIZED when closed, NX_ERROR_UNEXPECTED when the record does not
    // go in: the pipe is full (it takes some 170), so that the reactor is about to wake anyway. It
    // then still fires the posted events that a null handler stands for.
    [[nodiscard]] NxResult Notify(INxEventHandler* handler, long mask);

    // Whether records wait that OnInput has not read. True may also mean one that is on its way.
    bool HasRecords() const { return m_records.load() > 0; }

    // The reading end, -1 when closed.
    int GetHandle() const override;

    // Reads one record and has it dispatched; the pipe's own descriptor in it stands for a wake-up
    // and nothing else. 0.
    int OnInput(int fd) override;

private:
    [[nodiscard]] NxResult OpenPipe();
    NxResult ClosePipe();
    [[nodiscard]] bool Write(const void* record, size_t size) NX_REQUIRES(m_mutex);

    mutable CNxMutexThread m_mutex;
    CNxPipe m_PipeNotify NX_GUARDED_BY(m_mutex);
    CNxReactorBase* m_pReactor = nullptr;
    // Counted before a record is written and after it is read, so it is never below their number
    // unless a forked child, which has the pipe in common with its parent, has written some.
    std::atomic<long> m_records{0};
    // The record for posted events found no room; after the next one that is read they are fired.
    std::atomic<bool> m_eventsOwed{false};
};
