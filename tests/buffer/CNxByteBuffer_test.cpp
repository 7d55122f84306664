#include <gtest/gtest.h>
#include <nx/buffer/CNxByteBuffer.h>
#include <nx/foundation/CNxString.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>
#include <random>
#include <string>

namespace {

constexpr unsigned long c_top = std::numeric_limits<unsigned long>::max();

std::string GetUnread(const CNxByteBuffer& buffer) {
    return {buffer.GetUnread(), buffer.GetUnreadLength()};
}

TEST(CNxByteBuffer, IntegersLieInTheChosenOrderAndComeBack) {
    const std::string network(
        "\x12\x12\x34\x12\x34\x56\x12\x34\x56\x78\xfe\x23\x45\x67\x89\xab"
        "\xcd\xef");
    const std::string host(
        "\x12\x34\x12\x56\x34\x12\x78\x56\x34\x12\xef\xcd\xab\x89\x67\x45"
        "\x23\xfe");
    for (const auto order : {CNxByteBuffer::NETWORK_ORDER, CNxByteBuffer::HOST_ORDER}) {
        CNxByteBuffer buffer(order);
        buffer.WriteUInt8(0x12);
        buffer.WriteUInt16(0x1234);
        buffer.WriteUInt24(0xff123456);
        buffer.WriteUInt32(0x12345678);
        buffer.WriteUInt64(0xfe23456789abcdef);
        EXPECT_EQ(GetUnread(buffer), order == CNxByteBuffer::NETWORK_ORDER ? network : host);
        unsigned char i8 = 0;
        unsigned short i16 = 0;
        unsigned int i24 = c_top & 0xffffffff;
        unsigned int i32 = 0;
        unsigned long i64 = 0;
        EXPECT_TRUE(buffer.ReadUInt8(&i8) && buffer.ReadUInt16(&i16) && buffer.ReadUInt24(&i24));
        EXPECT_TRUE(buffer.ReadUInt32(&i32) && buffer.ReadUInt64(&i64));
        EXPECT_TRUE(i8 == 0x12 && i16 == 0x1234 && i24 == 0x123456 && i32 == 0x12345678);
        EXPECT_EQ(i64, 0xfe23456789abcdef);
    }
}

// The letter of growth, compaction and saved positions, without storage.
struct Model {
    void Write(const std::string& bytes) {
        const unsigned long needed = m_all.size() - m_read + bytes.size();
        if (needed > m_capacity - m_read) {
            Resize(needed);
        }
        m_all += bytes;
    }
    void Resize(unsigned long size) {
        m_all = m_all.substr(m_read, size);
        m_capacity = m_capacity >= size ? m_capacity : std::max(m_capacity * 3 / 2, size);
        m_read = 0;
        ++m_version;
    }
    std::string m_all;
    unsigned long m_read = 0;
    unsigned long m_capacity = 4096;
    unsigned m_version = 0;
};

TEST(CNxByteBuffer, GrowsMovesRestoresPositionsAndRefusesSizesLikeTheModel) {
    EXPECT_THROW(CNxByteBuffer("a", c_top), std::bad_alloc);
    std::mt19937 engine(1);
    const auto random = [&engine](unsigned long below) { return engine() % below; };
    CNxByteBuffer buffer;
    Model model;
    CNxByteBuffer::ReadPosition saved = buffer.GetReadPosition();
    Model savedModel;
    for (int step = 0; step < 20000; ++step) {
        const unsigned long n = random(random(20) == 0 ? 3000 : 100);
        const std::string bytes(n, static_cast<char>('a' + random(26)));
        const bool isThere = n <= model.m_all.size() - model.m_read;
        const bool isSameVersion = savedModel.m_version == model.m_version;
        switch (random(random(100) == 0 ? 8 : 6)) {
            case 0:
                buffer.WriteBytes(bytes.data(), n);
                model.Write(bytes);
                break;
            case 1:
                std::memcpy(buffer.ReserveWriteBuffer(n), bytes.data(), n);
                model.Write(bytes);
                ASSERT_THROW(static_cast<void>(buffer.ReserveWriteBuffer(c_top - n)),
                             std::bad_alloc);
                break;
            case 2:
            case 3:
                ASSERT_EQ(buffer.Consume(n), isThere);
                model.m_read += isThere ? n : 0;
                break;
            case 4:
                saved = buffer.GetReadPosition();
                savedModel = model;
                break;
            case 5:
                ASSERT_EQ(buffer.SetReadPosition(saved), isSameVersion);
                model.m_read = isSameVersion ? savedModel.m_read : model.m_read;
                break;
            case 6:
                ASSERT_THROW(buffer.Resize(c_top / 2 + 1 + n), std::bad_alloc);
                buffer.Resize(n * 10);
                model.Resize(n * 10);
                break;
            default:
                buffer.Clear();
                model.Resize(0);
                break;
        }
        ASSERT_EQ(GetUnread(buffer), model.m_all.substr(model.m_read)) << "step " << step;
        ASSERT_EQ(buffer.GetCapacity(), model.m_capacity) << "step " << step;
    }
}

}  // namespace
