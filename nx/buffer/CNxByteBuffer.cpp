#include <nx/buffer/CNxByteBuffer.h>
#include <nx/foundation/CNxString.h>

#include <algorithm>
#include <cassert>
#include <cstdint>
#include <cstring>
#include <new>

namespace {

constexpr unsigned long c_defaultCapacity = 4096;
constexpr unsigned long c_maxCapacity = PTRDIFF_MAX;

// Not zeroed: bytes are written before they are read.
std::unique_ptr<char[]> MakeStorage(unsigned long size) {
    if (size > c_maxCapacity) {
        throw std::bad_alloc();
    }
    return std::unique_ptr<char[]>(new char[size]);
}

// Where the i-th least significant byte of an integer lies.
constexpr unsigned GetPlace(unsigned i, unsigned width, CNxByteBuffer::ByteOrder order) {
    return order == CNxByteBuffer::HOST_ORDER ? i : width - 1 - i;
}

}  // namespace

CNxByteBuffer::CNxByteBuffer(ByteOrder order) {
    Construct(nullptr, c_defaultCapacity, order);
}

CNxByteBuffer::CNxByteBuffer(const char* bytes, unsigned long length, ByteOrder order) {
    Construct(bytes, length, order);
}

CNxByteBuffer::CNxByteBuffer(const char* text) {
    Construct(text, text == nullptr ? 0 : std::strlen(text), NETWORK_ORDER);
}

void CNxByteBuffer::Construct(const char* bytes, unsigned long length, ByteOrder order) {
    m_storage = MakeStorage(length);
    m_capacity = length;
    m_order = order;
    if (bytes != nullptr) {
        std::memcpy(m_storage.get(), bytes, length);
        m_end = length;
    }
}

template <unsigned Width, class Int>
int CNxByteBuffer::ReadInt(Int* value) {
    if (value == nullptr || GetUnreadLength() < Width) {
        return 0;
    }
    const char* from = GetUnread();
    unsigned long sum = 0;
    for (unsigned i = 0; i < Width; ++i) {
        const auto byte = static_cast<unsigned char>(from[GetPlace(i, Width, m_order)]);
        sum |= static_cast<unsigned long>(byte) << (8 * i);
    }
    *value = static_cast<Int>(sum);
    m_readPosition += Width;
    assert(m_readPosition <= m_end && m_end <= m_capacity);
    return 1;
}

template <unsigned Width, class Int>
void CNxByteBuffer::WriteInt(Int value) {
    char* to = ReserveWriteBuffer(Width);
    for (unsigned i = 0; i < Width; ++i) {
        to[GetPlace(i, Width, m_order)] =
            static_cast<char>(static_cast<unsigned long>(value) >> (8 * i));
    }
}

int CNxByteBuffer::ReadUInt8(unsigned char* value) {
    return ReadInt<1>(value);
}

int CNxByteBuffer::ReadUInt16(unsigned short* value) {
    return ReadInt<2>(value);
}

int CNxByteBuffer::ReadUInt24(unsigned int* value) {
    return ReadInt<3>(value);
}

int CNxByteBuffer::ReadUInt32(unsigned int* value) {
    return ReadInt<4>(value);
}

int CNxByteBuffer::ReadUInt64(unsigned long* value) {
    return ReadInt<8>(value);
}

int CNxByteBuffer::ReadString(CNxString* text, unsigned long length) {
    if (text == nullptr || GetUnreadLength() < length) {
        return 0;
    }
    text->append(GetUnread(), length);
    m_readPosition += length;
    return 1;
}

int CNxByteBuffer::ReadBytes(char* bytes, unsigned long length) {
    if (bytes == nullptr || GetUnreadLength() < length) {
        return 0;
    }
    std::memcpy(bytes, GetUnread(), length);
    m_readPosition += length;
    return 1;
}

void CNxByteBuffer::WriteUInt8(unsigned char value) {
    WriteInt<1>(value);
}

void CNxByteBuffer::WriteUInt16(unsigned short value) {
    WriteInt<2>(value);
}

void CNxByteBuffer::WriteUInt24(unsigned int value) {
    WriteInt<3>(value);
}

void CNxByteBuffer::WriteUInt32(unsigned int value) {
    WriteInt<4>(value);
}

void CNxByteBuffer::WriteUInt64(unsigned long value) {
    WriteInt<8>(value);
}

void CNxByteBuffer::WriteBytes(const char* bytes, unsigned long length) {
    if (bytes != nullptr) {
        std::memcpy(ReserveWriteBuffer(length), bytes, length);
    }
}

void CNxByteBuffer::WriteString(const CNxString& text) {
    WriteBytes(text.data(), text.size());
}

char* CNxByteBuffer::ReserveWriteBuffer(unsigned long n) {
    assert(m_readPosition <= m_end && m_end <= m_capacity);
    if (n > m_capacity - m_end) {
        const unsigned long unread = GetUnreadLength();
        if (n > c_maxCapacity - unread) {
            throw std::bad_alloc();
        }
        Resize(unread + n);
    }
    assert(n <= m_capacity - m_end);
    char* reserved = m_storage.get() + m_end;
    m_end += n;
    return reserved;
}

void CNxByteBuffer::Resize(unsigned long size) {
    const unsigned long kept = std::min(GetUnreadLength(), size);
    if (m_capacity >= size) {
        std::memmove(m_storage.get(), GetUnread(), kept);
    } else {
        const unsigned long capacity = std::max(m_capacity + m_capacity / 2, size);
        std::unique_ptr<char[]> larger = MakeStorage(capacity);
        std::memcpy(larger.get(), GetUnread(), kept);
        m_storage = std::move(larger);
        m_capacity = capacity;
    }
    m_readPosition = 0;
    m_end = kept;
    assert(m_end <= m_capacity);
    ++m_version;
}

int CNxByteBuffer::Consume(unsigned long n) {
    assert(m_readPosition <= m_end);
    if (n > GetUnreadLength()) {
        return 0;
    }
    m_readPosition += n;
    return 1;
}

int CNxByteBuffer::SetReadPosition(const ReadPosition& position) {
    // A position beyond the end can only be that of another buffer.
    if (position.m_version != m_version || position.m_position > m_end) {
        return 0;
    }
    m_readPosition = position.m_position;
    return 1;
}

void CNxByteBuffer::Clear() {
    std::memset(m_storage.get(), 0, m_capacity);
    m_readPosition = 0;
    m_end = 0;
    ++m_version;
}
