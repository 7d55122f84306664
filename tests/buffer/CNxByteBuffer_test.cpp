#include <gtest/gtest.h>
#include <nx/buffer/CNxByteBuffer.h>

#include <limits>
#include <new>
#include <string>

namespace {

constexpr unsigned long c_top = std::numeric_limits<unsigned long>::max();

std::string GetUnread(const CNxByteBuffer& buffer) {
    return {buffer.GetUnread(), buffer.GetUnreadLength()};
}

TEST(CNxByteBuffer, IntegersLieInTheChosenOrderAndComeBack) {
    const std::string network("\x12\x12\x34\x12\x34\x56\x12\x34\x56\x78\xfe\x23\x45\x67\x89\xab");
    const std::string host("\x12\x34\x12\x56\x34\x12\x78\x56\x34\x12\xef\xcd\xab\x89\x67\x45");
    for (const auto order : {CNxByteBuffer::NETWORK_ORDER, CNxByteBuffer::HOST_ORDER}) {
        CNxByteBuffer buffer(order);
        buffer.WriteUInt8(0x12);
        buffer.WriteUInt16(0x1234);
        buffer.WriteUInt24(0xff123456);
        buffer.WriteUInt32(0x12345678);
        buffer.WriteUInt64(0xfe23456789abcdef);
        EXPECT_EQ(GetUnread(buffer).substr(0, network.size()),
                  order == CNxByteBuffer::NETWORK_ORDER ? network : host);
        unsigned char i8 = 0;
        unsigned short i16 = 0;
        unsigned int i24 = 0xffffffff;
        unsigned int i32 = 0;
        unsigned long i64 = 0;
        EXPECT_TRUE(buffer.ReadUInt8(&i8) && buffer.ReadUInt16(&i16) && buffer.ReadUInt24(&i24));
        EXPECT_TRUE(buffer.ReadUInt32(&i32) && buffer.ReadUInt64(&i64));
        EXPECT_TRUE(i8 == 0x12 && i16 == 0x1234 && i24 == 0x123456 && i32 == 0x12345678);
        EXPECT_EQ(i64, 0xfe23456789abcdef);
        EXPECT_FALSE(buffer.ReadUInt8(&i8));
    }
}

TEST(CNxByteBuffer, MakesRoomInTheStorageBeforeItGrowsAndPositionsEndWithThat) {
    CNxByteBuffer buffer("0123456789", 10);
    EXPECT_TRUE(buffer.Consume(4));
    const CNxByteBuffer::ReadPosition position = buffer.GetReadPosition();
    EXPECT_TRUE(buffer.Consume(2));
    EXPECT_FALSE(buffer.Consume(5));
    EXPECT_TRUE(buffer.SetReadPosition(position));
    buffer.WriteBytes("abcd", 4);
    EXPECT_FALSE(buffer.SetReadPosition(position));
    EXPECT_EQ(buffer.GetCapacity(), 10u);
    buffer.WriteBytes("ef", 2);
    EXPECT_EQ(GetUnread(buffer), "456789abcdef");
    EXPECT_EQ(buffer.GetCapacity(), 15u);
    *buffer.ReserveWriteBuffer(20) = 'g';
    EXPECT_EQ(buffer.GetCapacity(), 32u);
    for (const unsigned long size : {c_top, c_top - 5, c_top / 2 + 1}) {
        EXPECT_THROW(static_cast<void>(buffer.ReserveWriteBuffer(size)), std::bad_alloc);
        EXPECT_THROW(buffer.Resize(size), std::bad_alloc);
        EXPECT_THROW(CNxByteBuffer("a", size), std::bad_alloc);
    }
    EXPECT_TRUE(buffer.Consume(11));
    buffer.Resize(2);
    EXPECT_EQ(GetUnread(buffer), "fg");
}

}  // namespace
