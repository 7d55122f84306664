#include <gtest/gtest.h>
#include <nx/buffer/CNxFifoBuffer.h>

#include <algorithm>
#include <limits>
#include <new>
#include <random>
#include <string>

namespace {

constexpr unsigned long c_top = std::numeric_limits<unsigned long>::max();
constexpr int c_done = CNxFifoBuffer::TRANSFER_DONE;
constexpr int c_blocked = CNxFifoBuffer::TRANSFER_BLOCKED;
constexpr int c_closed = CNxFifoBuffer::TRANSFER_CLOSED;

TEST(CNxFifoBuffer, ClosedBufferRefusesWritesAndIsDrainedToTheEnd) {
    CNxFifoBuffer fifo(4);
    unsigned long n = 9;
    char bytes[8] = "";
    EXPECT_EQ(fifo.GetState(), CNxFifoBuffer::STATE_OPEN);
    EXPECT_EQ(fifo.Read(bytes, 8, &n, nullptr), c_blocked);
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(fifo.Write("abcdef", 6, &n, nullptr), c_done);
    EXPECT_EQ(n, 4u);
    EXPECT_EQ(fifo.Write("e", 1, &n, nullptr), c_blocked);
    fifo.Close();
    EXPECT_EQ(fifo.GetState(), CNxFifoBuffer::STATE_CLOSED);
    EXPECT_EQ(fifo.Write("e", 1, &n, nullptr), c_closed);
    EXPECT_EQ(fifo.WriteOffset("e", 1, 0, &n), c_closed);
    EXPECT_EQ(fifo.GetWriteBuffer(&n), nullptr);
    EXPECT_EQ(fifo.Read(bytes, 8, &n, nullptr), c_done);
    EXPECT_EQ(std::string(bytes, n), "abcd");
    EXPECT_EQ(fifo.Read(bytes, 8, &n, nullptr), c_closed);
    EXPECT_EQ(fifo.ReadOffset(bytes, 8, 0, &n), c_closed);
}

TEST(CNxFifoBuffer, NumbersNearTheTopNeitherWrapNorReachBeyondTheStorage) {
    EXPECT_THROW(CNxFifoBuffer fifo(c_top), std::bad_alloc);
    CNxFifoBuffer fifo(4);
    unsigned long n = 0;
    char bytes[8] = "";
    ASSERT_EQ(fifo.Write("abc", 3, nullptr, nullptr), c_done);
    for (const unsigned long huge : {c_top, c_top - 1, c_top / 2 + 1}) {
        EXPECT_EQ(fifo.ReadOffset(bytes, huge, huge, &n), c_blocked);
        EXPECT_EQ(fifo.WriteOffset(bytes, huge, huge, &n), c_blocked);
        EXPECT_EQ(fifo.SetCapacity(huge), 0);
    }
    EXPECT_EQ(fifo.ReadOffset(bytes, c_top, 1, &n), c_done);
    EXPECT_EQ(std::string(bytes, n), "bc");
    EXPECT_EQ(fifo.Write(nullptr, 1, &n, nullptr), c_done);
    EXPECT_EQ(fifo.Read(nullptr, 1, &n, nullptr), c_done);
    EXPECT_EQ(n, 0u);
    fifo.ConsumeWriteBuffer(c_top);
    EXPECT_EQ(fifo.GetBuffered(&n), 1);
    EXPECT_EQ(n, 4u);
    fifo.ConsumeReadData(c_top);
    EXPECT_EQ(fifo.GetWriteRemaining(&n), 1);
    EXPECT_EQ(n, 4u);
}

// The model is the string of the buffered bytes, and the place in the ring where it begins.
TEST(CNxFifoBuffer, TransfersWhatAStringWould) {
    std::mt19937 engine(2);
    const auto random = [&engine](unsigned long below) { return engine() % below; };
    CNxFifoBuffer fifo(10);
    std::string model;
    unsigned long capacity = 10;
    unsigned long place = 0;
    for (int step = 0; step < 50000; ++step) {
        unsigned long n = 0;
        unsigned long buffered = 0;
        char bytes[32];
        const unsigned long length = random(14);
        const unsigned long offset = random(6);
        for (unsigned long i = 0; i < length; ++i) {
            bytes[i] = static_cast<char>(engine());
        }
        switch (random(7)) {
            case 0:
                ASSERT_EQ(fifo.Write(bytes, length, &n, nullptr),
                          model.size() == capacity ? c_blocked : c_done);
                ASSERT_EQ(n, std::min(length, capacity - model.size()));
                model.append(bytes, n);
                break;
            case 1:
                ASSERT_EQ(fifo.Read(bytes, length, &n, nullptr),
                          model.empty() ? c_blocked : c_done);
                ASSERT_EQ(std::string(bytes, n), model.substr(0, length));
                model.erase(0, n);
                place = (place + n) % capacity;
                break;
            case 2:
                ASSERT_EQ(fifo.ReadOffset(bytes, length, offset, &n),
                          offset >= model.size() ? c_blocked : c_done);
                ASSERT_EQ(std::string(bytes, n),
                          offset >= model.size() ? std::string() : model.substr(offset, length));
                break;
            case 3:
                ASSERT_EQ(fifo.WriteOffset(bytes, length, offset, &n),
                          offset < capacity - model.size() ? c_done : c_blocked);
                ASSERT_EQ(fifo.WriteOffset("xxxxx", offset, 0, nullptr),
                          model.size() < capacity ? c_done : c_blocked);
                ASSERT_EQ(fifo.GetBuffered(&buffered), 1);
                ASSERT_EQ(buffered, model.size());
                model.append(std::min(offset, capacity - model.size()), 'x').append(bytes, n);
                fifo.ConsumeWriteBuffer(model.size() - buffered);
                break;
            case 4: {
                const auto* run = static_cast<const char*>(fifo.GetReadData(&n));
                ASSERT_EQ(std::string(run, n), model.substr(0, capacity - place));
                n = std::min(n, length);
                fifo.ConsumeReadData(n);
                model.erase(0, n);
                place = (place + n) % capacity;
                break;
            }
            case 5: {
                char* room = static_cast<char*>(fifo.GetWriteBuffer(&n));
                place = model.empty() ? 0 : place;
                const unsigned long end = capacity - (place + model.size()) % capacity;
                ASSERT_EQ(n, std::min(capacity - model.size(), end));
                n = std::min(n, length);
                std::copy_n(bytes, n, room);
                fifo.ConsumeWriteBuffer(n);
                model.append(bytes, n);
                break;
            }
            default:
                if (random(10) == 0) {
                    const bool fits = length + 1 >= model.size();
                    place = fits && length + 1 != capacity ? 0 : place;
                    capacity = fits ? length + 1 : capacity;
                    ASSERT_EQ(fifo.SetCapacity(length + 1), fits);
                }
        }
        ASSERT_EQ(fifo.GetWriteRemaining(&n), 1);
        ASSERT_EQ(n, capacity - model.size()) << "step " << step;
    }
}

}  // namespace
