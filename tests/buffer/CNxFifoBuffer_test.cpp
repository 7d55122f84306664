// A ring of five bytes in every state beside the string of its bytes, with all lengths and offsets.
#include <gtest/gtest.h>
#include <nx/buffer/CNxFifoBuffer.h>

#include <algorithm>
#include <limits>
#include <new>
#include <string>

namespace {

constexpr unsigned long c_top = std::numeric_limits<unsigned long>::max();
constexpr unsigned long c_capacity = 5;
constexpr unsigned long c_numbers[] = {0, 1, 2, 3, 4, 5, 6, c_top - 1, c_top};

struct CRing {
    // The bytes lie from `place` on.
    CRing(unsigned long place, unsigned long count, bool isClosed)
        : all(std::string("abcde").substr(0, count)),
          room(isClosed ? 0 : c_capacity - count),
          otherwise(isClosed ? CNxFifoBuffer::TRANSFER_CLOSED : CNxFifoBuffer::TRANSFER_BLOCKED) {
        static_cast<void>(fifo.Write("?????", place, nullptr, nullptr));
        fifo.ConsumeReadData(place);
        static_cast<void>(fifo.Write(all.data(), count, nullptr, nullptr));
        if (isClosed) {
            fifo.Close();
        }
    }

    int Result(bool isPossible) const {
        return isPossible ? CNxFifoBuffer::TRANSFER_DONE : otherwise;
    }

    // Reads all in place.
    std::string Drain() {
        std::string bytes;
        for (unsigned long n = 1; n != 0; fifo.ConsumeReadData(n)) {
            const auto* const run = static_cast<const char*>(fifo.GetReadData(&n));
            bytes.append(run, n);
        }
        return bytes;
    }

    CNxFifoBuffer fifo{c_capacity};
    const std::string all;
    const unsigned long room;
    const int otherwise;
};

template <class Check>
void ForEachRing(Check check) {
    for (unsigned state = 0; state < 2 * 6 * c_capacity; ++state) {
        for (const unsigned long length : c_numbers) {
            for (const unsigned long offset : c_numbers) {
                SCOPED_TRACE(testing::Message() << state << " " << length << " " << offset);
                CRing ring(state % c_capacity, state / c_capacity % 6, state >= 6 * c_capacity);
                check(ring, length, offset);
            }
        }
    }
}

TEST(CNxFifoBuffer, ReadsWhatIsThereAndFromAnOffset) {
    ForEachRing([](CRing& ring, unsigned long length, unsigned long offset) {
        char bytes[c_capacity];
        unsigned long n = 99;
        const unsigned long from = std::min(offset, ring.all.size());
        EXPECT_EQ(ring.fifo.ReadOffset(bytes, length, offset, &n),
                  ring.Result(from < ring.all.size()));
        EXPECT_EQ(std::string(bytes, n), ring.all.substr(from, length));
        EXPECT_EQ(ring.fifo.Read(bytes, length, &n, nullptr), ring.Result(!ring.all.empty()));
        EXPECT_EQ(std::string(bytes, n), ring.all.substr(0, length));
        EXPECT_EQ(ring.Drain(), ring.all.substr(n));
    });
}

TEST(CNxFifoBuffer, WritesAtAnOffsetAndThenBeforeIt) {
    ForEachRing([](CRing& ring, unsigned long length, unsigned long offset) {
        const std::string bytes = "123456";
        unsigned long later = 99;
        unsigned long n = 99;
        const unsigned long gap = std::min(offset, ring.room);
        EXPECT_EQ(ring.fifo.WriteOffset(bytes.data(), length, offset, &later),
                  ring.Result(offset < ring.room));
        EXPECT_EQ(later, std::min(length, ring.room - gap));
        EXPECT_EQ(ring.fifo.Write("xyzuv", gap, &n, nullptr), ring.Result(ring.room != 0));
        EXPECT_EQ(n, gap);
        ring.fifo.ConsumeWriteBuffer(later);
        EXPECT_EQ(ring.Drain(), ring.all + std::string("xyzuv", gap) + bytes.substr(0, later));
    });
}

// A run ends where the ring does, or at what is buffered.
TEST(CNxFifoBuffer, IsFilledInPlaceAndResized) {
    ForEachRing([](CRing& ring, unsigned long length, unsigned long size) {
        std::string expected = ring.all;
        unsigned long n = 99;
        for (unsigned long room = ring.room, runs = 0; room != 0 && runs < 2; ++runs) {
            char* const run = static_cast<char*>(ring.fifo.GetWriteBuffer(&n));
            std::fill_n(run, n, 'w');
            ring.fifo.ConsumeWriteBuffer(n == room ? std::max(n, length) : n);
            expected.append(n, 'w');
            room -= n;
        }
        EXPECT_EQ(ring.fifo.GetWriteBuffer(&n) == nullptr,
                  ring.otherwise == CNxFifoBuffer::TRANSFER_CLOSED);
        EXPECT_EQ(n, 0u);
        EXPECT_EQ(expected.size(), ring.all.size() + ring.room);
        EXPECT_EQ(ring.fifo.SetCapacity(size), expected.size() <= size && size < c_top / 2 ? 1 : 0);
        EXPECT_EQ(ring.Drain(), expected);
    });
    EXPECT_THROW(CNxFifoBuffer fifo(c_top), std::bad_alloc);
}

}  // namespace
