// A growing buffer that integers, strings and raw bytes are written to and read from in order: the
// body of a protocol message, packed and unpacked.
#pragma once

#include <cstddef>
#include <memory>

class CNxString;

// Written at the end, read from the front, by one thread at a time.
//
//     0       read position      end            capacity
//     |  read  |     unread      |      room        |
//
// A write that finds too little room first moves the unread bytes to the front of the storage, or,
// when the capacity is too small, into a larger one: of 3/2 of the capacity, or of what is needed
// if that is more. It throws std::bad_alloc when the memory cannot be had, with nothing changed.
class CNxByteBuffer {
public:
    // How integers lie in the buffer: the most significant byte first, or the least.
    enum ByteOrder { NETWORK_ORDER = 0, HOST_ORDER = 1 };

    // A place to come back to. Good until the bytes of its buffer move.
    class ReadPosition {
    public:
        ReadPosition() = default;

    private:
        friend class CNxByteBuffer;
        ReadPosition(unsigned long position, unsigned int version)
            : m_position(position), m_version(version) {}

        unsigned long m_position = 0;
        unsigned int m_version = 0;
    };

    // Empty, with a capacity of 4096 bytes.
    explicit CNxByteBuffer(ByteOrder order = NETWORK_ORDER);

    // Holds a copy of the bytes and has no room beyond them. With null it is empty and has a
    // capacity of `length`.
    CNxByteBuffer(const char* bytes, unsigned long length, ByteOrder order = NETWORK_ORDER);

    // Holds the characters without the terminator; nothing for null.
    explicit CNxByteBuffer(const char* text);

    CNxByteBuffer(const CNxByteBuffer&) = delete;
    CNxByteBuffer& operator=(const CNxByteBuffer&) = delete;

    // All reads return 1, or 0, with nothing read or stored, for a null destination or when fewer
    // bytes than asked for are unread.
    [[nodiscard]] int ReadUInt8(unsigned char* value);
    [[nodiscard]] int ReadUInt16(unsigned short* value);
    // Three bytes.
    [[nodiscard]] int ReadUInt24(unsigned int* value);
    [[nodiscard]] int ReadUInt32(unsigned int* value);
    [[nodiscard]] int ReadUInt64(unsigned long* value);
    // Appends exactly `length` bytes to the string, whatever they are.
    [[nodiscard]] int ReadString(CNxString* text, unsigned long length);
    [[nodiscard]] int ReadBytes(char* bytes, unsigned long length);

    void WriteUInt8(unsigned char value);
    void WriteUInt16(unsigned short value);
    // The low three bytes.
    void WriteUInt24(unsigned int value);
    void WriteUInt32(unsigned int value);
    void WriteUInt64(unsigned long value);
    // The bytes alone, without length or terminator. They must not lie in this buffer. Null writes
    // nothing.
    void WriteBytes(const char* bytes, unsigned long length);
    void WriteString(const CNxString& text);

    // Counts `n` bytes as written and returns where they lie, for the caller to fill before they
    // are read. The pointer is good until the next write, Resize or Clear.
    [[nodiscard]] char* ReserveWriteBuffer(unsigned long n);

    // Moves the unread bytes to the front, into a larger storage when the capacity is below `size`
    // (see the class). Unread bytes beyond `size` are LOST; the capacity never shrinks.
    void Resize(unsigned long size);

    // Skips bytes. Returns 1, or 0, with nothing skipped, when fewer are unread.
    [[nodiscard]] int Consume(unsigned long n);

    ReadPosition GetReadPosition() const { return {m_readPosition, m_version}; }

    // Reads again from there. Returns 1, or 0, with nothing changed, when the bytes have moved
    // since: by a write that made room, Resize or Clear.
    [[nodiscard]] int SetReadPosition(const ReadPosition& position);

    // Empties the buffer and zeroes its whole storage.
    void Clear();

    // The unread bytes and their number. The pointer is good as long as that of
    // ReserveWriteBuffer.
    const char* GetUnread() const { return m_storage.get() + m_readPosition; }
    unsigned long GetUnreadLength() const { return m_end - m_readPosition; }
    unsigned long GetCapacity() const { return m_capacity; }

private:
    void Construct(const char* bytes, unsigned long length, ByteOrder order);
    template <unsigned Width, class Int>
    [[nodiscard]] int ReadInt(Int* value);
    template <unsigned Width, class Int>
    void WriteInt(Int value);

    std::unique_ptr<char[]> m_storage;
    unsigned long m_capacity = 0;
    unsigned long m_readPosition = 0;
    unsigned long m_end = 0;
    unsigned int m_version = 0;  // grows whenever bytes move
    ByteOrder m_order = NETWORK_ORDER;
};
