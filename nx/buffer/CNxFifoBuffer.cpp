#include <nx/buffer/CNxFifoBuffer.h>

#include <algorithm>
#include <cassert>
#include <cstdint>
#include <cstring>
#include <new>

namespace {

using Guard = CNxMutexGuardT<CNxMutexThread>;

// Null when the memory cannot be had. Below PTRDIFF_MAX no sum of two indices overflows.
std::unique_ptr<char[]> MakeStorage(unsigned long size) {
    return std::unique_ptr<char[]>(size > PTRDIFF_MAX ? nullptr : new (std::nothrow) char[size]);
}

void Store(unsigned long value, unsigned long* out) {
    if (out != nullptr) {
        *out = value;
    }
}

int Report(CNxFifoBuffer::TransferResult result, unsigned long count, unsigned long* done) {
    Store(count, done);
    return result;
}

}  // namespace

CNxFifoBuffer::CNxFifoBuffer(unsigned long capacity)
    : m_storage(MakeStorage(capacity)), m_capacity(capacity) {
    if (m_storage == nullptr) {
        throw std::bad_alloc();
    }
}

bool CNxFifoBuffer::IsInOrder() const {
    return m_buffered <= m_capacity && (m_readIndex < m_capacity || m_readIndex == 0);
}

// Index of the byte that lies `offset` bytes, at most the capacity, after the first buffered one.
unsigned long CNxFifoBuffer::GetPlace(unsigned long offset) const {
    assert(IsInOrder() && offset <= m_capacity);
    const unsigned long place = m_readIndex + offset;
    return place < m_capacity ? place : place - m_capacity;
}

void CNxFifoBuffer::CopyOut(char* to, unsigned long offset, unsigned long count) const {
    assert(offset <= m_buffered && count <= m_buffered - offset);
    const unsigned long place = GetPlace(offset);
    const unsigned long run = std::min(count, m_capacity - place);
    std::memcpy(to, m_storage.get() + place, run);
    std::memcpy(to + run, m_storage.get(), count - run);
}

void CNxFifoBuffer::TakeOut(unsigned long count) {
    assert(count <= m_buffered);
    m_readIndex = GetPlace(count);
    m_buffered -= count;
}

int CNxFifoBuffer::Read(void* to, unsigned long length, unsigned long* done, int* /*unused*/) {
    const Guard guard(m_mutex);
    unsigned long count = 0;
    const int result = ReadOffsetLocked(to, length, 0, &count);
    TakeOut(count);
    Store(count, done);
    return result;
}

int CNxFifoBuffer::Write(const void* from, unsigned long length, unsigned long* done,
                         int* /*unused*/) {
    const Guard guard(m_mutex);
    unsigned long count = 0;
    const int result = WriteOffsetLocked(from, length, 0, &count);
    m_buffered += count;
    assert(IsInOrder());
    Store(count, done);
    return result;
}

int CNxFifoBuffer::ReadOffset(void* to, unsigned long length, unsigned long offset,
                              unsigned long* done) {
    const Guard guard(m_mutex);
    return ReadOffsetLocked(to, length, offset, done);
}

int CNxFifoBuffer::WriteOffset(const void* from, unsigned long length, unsigned long offset,
                               unsigned long* done) {
    const Guard guard(m_mutex);
    return WriteOffsetLocked(from, length, offset, done);
}

int CNxFifoBuffer::ReadOffsetLocked(void* to, unsigned long length, unsigned long offset,
                                    unsigned long* done) {
    if (offset >= m_buffered) {
        return Report(m_state == STATE_CLOSED ? TRANSFER_CLOSED : TRANSFER_BLOCKED, 0, done);
    }
    const unsigned long count = to == nullptr ? 0 : std::min(length, m_buffered - offset);
    if (count != 0) {
        CopyOut(static_cast<char*>(to), offset, count);
    }
    return Report(TRANSFER_DONE, count, done);
}

int CNxFifoBuffer::WriteOffsetLocked(const void* from, unsigned long length, unsigned long offset,
                                     unsigned long* done) {
    if (m_state == STATE_CLOSED) {
        return Report(TRANSFER_CLOSED, 0, done);
    }
    const unsigned long room = m_capacity - m_buffered;
    if (offset >= room) {
        return Report(TRANSFER_BLOCKED, 0, done);
    }
    const unsigned long count = from == nullptr ? 0 : std::min(length, room - offset);
    if (count != 0) {
        const char* bytes = static_cast<const char*>(from);
        const unsigned long place = GetPlace(m_buffered + offset);
        const unsigned long run = std::min(count, m_capacity - place);
        std::memcpy(m_storage.get() + place, bytes, run);
        std::memcpy(m_storage.get(), bytes + run, count - run);
    }
    return Report(TRANSFER_DONE, count, done);
}

const void* CNxFifoBuffer::GetReadData(unsigned long* length) {
    const Guard guard(m_mutex);
    Store(std::min(m_buffered, m_capacity - m_readIndex), length);
    return m_storage.get() + m_readIndex;
}

void CNxFifoBuffer::ConsumeReadData(unsigned long n) {
    const Guard guard(m_mutex);
    TakeOut(std::min(n, m_buffered));
}

void* CNxFifoBuffer::GetWriteBuffer(unsigned long* length) {
    const Guard guard(m_mutex);
    if (m_state == STATE_CLOSED) {
        Store(0, length);
        return nullptr;
    }
    if (m_buffered == 0) {
        m_readIndex = 0;
    }
    const unsigned long place = GetPlace(m_buffered);
    const bool wrapped = m_buffered != 0 && place <= m_readIndex;
    Store((wrapped ? m_readIndex : m_capacity) - place, length);
    return m_storage.get() + place;
}

void CNxFifoBuffer::ConsumeWriteBuffer(unsigned long n) {
    const Guard guard(m_mutex);
    m_buffered += std::min(n, m_capacity - m_buffered);
}

int CNxFifoBuffer::GetBuffered(unsigned long* count) const {
    const Guard guard(m_mutex);
    Store(m_buffered, count);
    return 1;
}

int CNxFifoBuffer::GetWriteRemaining(unsigned long* count) const {
    const Guard guard(m_mutex);
    Store(m_capacity - m_buffered, count);
    return 1;
}

int CNxFifoBuffer::SetCapacity(unsigned long size) {
    const Guard guard(m_mutex);
    if (size < m_buffered) {
        return 0;
    }
    if (size == m_capacity) {
        return 1;
    }
    std::unique_ptr<char[]> storage = MakeStorage(size);
    if (storage == nullptr) {
        return 0;
    }
    if (m_buffered != 0) {
        CopyOut(storage.get(), 0, m_buffered);
    }
    m_storage = std::move(storage);
    m_capacity = size;
    m_readIndex = 0;
    assert(IsInOrder());
    return 1;
}

void CNxFifoBuffer::Close() {
    const Guard guard(m_mutex);
    m_state = STATE_CLOSED;
}

int CNxFifoBuffer::GetState() const {
    const Guard guard(m_mutex);
    return m_state;
}
