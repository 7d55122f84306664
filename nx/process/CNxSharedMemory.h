// Memory that several processes share, with one lock that tells when its holder died (System V,
// shmget(2) and semget(2)).
#pragma once

#include <nx/foundation/CNxTimeValue.h>
#include <nx/foundation/NxResult.h>
#include <sys/types.h>

#include <atomic>

// Attached from Open() to Close() or its own end. The segment and its semaphores stay until
// somebody calls Remove(), also when no process is left: `ipcs` shows them.
//
// Opening and closing belong to one thread; Lock() and UnLock() may be called by any. A child of
// fork has the memory, too, and its copy of the object locks for the child.
//
// The semaphores: 0 is the lock, taken while it is not 0, and given up by the system when its
// holder dies (SEM_UNDO); 1 counts those in the critical section, which nobody corrects when one of
// them dies there. Both are 0 when they are made, so that there is no moment before they are set
// up.
class CNxSharedMemory {
public:
    CNxSharedMemory() = default;
    ~CNxSharedMemory() { Close(); }
    CNxSharedMemory(const CNxSharedMemory&) = delete;
    CNxSharedMemory& operator=(const CNxSharedMemory&) = delete;

    // Attaches the segment of that key (ftok(3) makes one from a path), or makes it, all zero, with
    // `mode` as the permissions of both segment and semaphores. Zeros are what the first to lock
    // finds: whoever finds them under the lock sets the content up.
    // NX_OK; NX_ERROR_ALREADY_INITIALIZED when open; NX_ERROR_INVALID_ARG for size 0 and the key
    // IPC_PRIVATE; NX_ERROR_UNEXPECTED when there is a segment of another size (GetSize() tells
    // it); NX_ERROR_FAILURE with errno (EACCES, ENOSPC, EINVAL where others have semaphores of that
    // key ...), and no segment is left that was not there.
    [[nodiscard]] NxResult Open(key_t key, size_t size, mode_t mode = 0600);

    // The same for a segment that somebody else has made: NX_ERROR_NOT_FOUND when there is none.
    [[nodiscard]] NxResult Attach(key_t key, size_t size);

    // Detaches. Gives the lock up when this object holds it. Nothing happens when not open.
    void Close();

    // Aligned to a page; null when not open.
    void* GetData() const { return m_data; }
    // As it was made, in bytes.
    size_t GetSize() const { return m_size; }

    // Waits for the lock, as long as `timeout`, or without limit for null and s_tvMax(). Not
    // recursive: who holds it, by any thread, waits for itself. NX_OK: the lock is held.
    // NX_ERROR_PARTIAL_DATA: IT IS HELD, TOO, but an earlier holder died, or ended, in its critical
    // section, and what it was writing may be half done; told once, to the next one that locks. Not
    // held: NX_ERROR_TIMEOUT; NX_ERROR_NOT_INITIALIZED when not open; NX_ERROR_NOT_FOUND when the
    // memory was removed, before or meanwhile; NX_ERROR_FAILURE with errno.
    [[nodiscard]] NxResult Lock(const CNxTimeValue* timeout = nullptr);

    // NX_OK; NX_ERROR_NOT_INITIALIZED when this process does not hold the lock with this object;
    // NX_ERROR_NOT_FOUND when the memory was removed meanwhile; NX_ERROR_FAILURE with errno.
    NxResult UnLock();

    // Removes segment and semaphores. Who is attached keeps the memory, but can lock it no more.
    // Who opens it at the same time may get a new segment with semaphores that are about to go, and
    // learns it from Lock.
    // NX_OK; NX_ERROR_NOT_FOUND when there is neither; NX_ERROR_INVALID_ARG for IPC_PRIVATE;
    // NX_ERROR_FAILURE with errno.
    [[nodiscard]] static NxResult Remove(key_t key);

private:
    [[nodiscard]] NxResult OpenSegment(key_t key, size_t size, int flags);

    void* m_data = nullptr;
    size_t m_size = 0;
    int m_semaphores = -1;
    std::atomic<pid_t> m_holder{0};
};
