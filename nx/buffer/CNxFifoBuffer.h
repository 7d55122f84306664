// A ring of bytes between a thread that produces them and one that consumes them.
#pragma once

#include <memory>

#include <nx/foundation/CNxMutexThread.h>

// Of fixed capacity, never blocks. Any thread may call any operation; each takes the mutex of the
// buffer except the ...Locked ones. What GetReadData and GetWriteBuffer return is used outside of
// it: one consumer and one producer at a time, and no SetCapacity meanwhile.
class CNxFifoBuffer {
public:
    // What the transfers return. `done` (may be null) gets the number of bytes, 0 when none could
    // be transferred. Null for the bytes counts as a length of 0.
    enum TransferResult {
        TRANSFER_DONE = 1,
        TRANSFER_BLOCKED = 2,  // nothing possible now: empty while open, or full
        TRANSFER_CLOSED = 3
    };

    enum State { STATE_CLOSED = 0, STATE_OPEN = 2 };

    // Open and empty, for `capacity` bytes. Throws std::bad_alloc when the memory cannot be had.
    explicit CNxFifoBuffer(unsigned long capacity);
    virtual ~CNxFifoBuffer() = default;

    CNxFifoBuffer(const CNxFifoBuffer&) = delete;
    CNxFifoBuffer& operator=(const CNxFifoBuffer&) = delete;

    // Takes up to `length` bytes out. TRANSFER_BLOCKED or, once closed, TRANSFER_CLOSED when
    // nothing is buffered: a closed buffer is drained to its end. The last argument is not used.
    [[nodiscard]] int Read(void* to, unsigned long length, unsigned long* done, int* unused);

    // Puts up to `length` bytes in, as many as there is room for. TRANSFER_CLOSED when closed,
    // TRANSFER_BLOCKED when full. The last argument is not used.
    [[nodiscard]] int Write(const void* from, unsigned long length, unsigned long* done,
                            int* unused);

    // Copies bytes from `offset` bytes after the first buffered one on and takes none out.
    // TRANSFER_BLOCKED or TRANSFER_CLOSED, as Read, when `offset` is not below the buffered count.
    [[nodiscard]] int ReadOffset(void* to, unsigned long length, unsigned long offset,
                                 unsigned long* done);

    // Writes from `offset` bytes after the last buffered one on, without counting the bytes as
    // buffered: ConsumeWriteBuffer does. TRANSFER_CLOSED when closed, TRANSFER_BLOCKED when no room
    // is left there.
    [[nodiscard]] int WriteOffset(const void* from, unsigned long length, unsigned long offset,
                                  unsigned long* done);

    // The same for a caller that holds the mutex, to do several in one go.
    [[nodiscard]] int ReadOffsetLocked(void* to, unsigned long length, unsigned long offset,
                                       unsigned long* done) NX_REQUIRES(m_mutex);
    [[nodiscard]] int WriteOffsetLocked(const void* from, unsigned long length,
                                        unsigned long offset, unsigned long* done)
        NX_REQUIRES(m_mutex);
    CNxMutexThread& GetMutex() NX_THREAD_ATTRIBUTE(lock_returned(m_mutex)) { return m_mutex; }

    // The buffered bytes up to where they wrap, and their number in `length`. Read in place, then
    // give them back with ConsumeReadData.
    const void* GetReadData(unsigned long* length);

    // Takes the first `n` bytes out, all for an `n` beyond the buffered count.
    void ConsumeReadData(unsigned long n);

    // The free bytes after the buffered ones up to where they wrap, and their number in `length`,
    // 0 when full; null and 0 when closed. Fill in place, then count with ConsumeWriteBuffer.
    void* GetWriteBuffer(unsigned long* length);

    // Counts `n` bytes as buffered, at most those that were free. Also when closed meanwhile.
    void ConsumeWriteBuffer(unsigned long n);

    // In bytes. Return 1 each.
    int GetBuffered(unsigned long* count) const;
    int GetWriteRemaining(unsigned long* count) const;

    // What was written with WriteOffset and not counted yet IS LOST. Returns 1, or 0, with
    // everything as it was, when more bytes are buffered than `size` or the memory cannot be had.
    [[nodiscard]] int SetCapacity(unsigned long size);

    // No more writing. Cannot be undone.
    void Close();

    // One of State.
    int GetState() const;

private:
    bool IsInOrder() const NX_REQUIRES(m_mutex);
    unsigned long GetPlace(unsigned long offset) const NX_REQUIRES(m_mutex);
    void TakeOut(unsigned long count) NX_REQUIRES(m_mutex);
    void CopyOut(char* to, unsigned long offset, unsigned long count) const NX_REQUIRES(m_mutex);

    int m_state NX_GUARDED_BY(m_mutex) = STATE_OPEN;
    std::unique_ptr<char[]> m_storage NX_GUARDED_BY(m_mutex);
    unsigned long m_capacity NX_GUARDED_BY(m_mutex);
    unsigned long m_buffered NX_GUARDED_BY(m_mutex) = 0;
    unsigned long m_readIndex NX_GUARDED_BY(m_mutex) = 0;  // below the capacity, or 0
    mutable CNxMutexThread m_mutex;
};
