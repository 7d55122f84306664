#include <gtest/gtest.h>
#include <nx/buffer/CNxFifoBuffer.h>

#include <algorithm>
#include <limits>
#include <new>
#include <random>
#include <string>

namespace {

constexpr unsigned long c_top = std::numeric_limits<unsigned long>::max();

// A buffer beside its model: the string of the buffered bytes, and the place in the ring where it
// begins. Lengths and offsets may be larger than any buffer.
struct CWorld {
    unsigned long Room() const { return m_capacity - m_model.size(); }

    int Result(bool isPossible) const {
        const int otherwise =
            m_isClosed ? CNxFifoBuffer::TRANSFER_CLOSED : CNxFifoBuffer::TRANSFER_BLOCKED;
        return isPossible ? CNxFifoBuffer::TRANSFER_DONE : otherwise;
    }

    void Read(unsigned long length, unsigned long offset) {
        char bytes[32];
        const unsigned long from = std::min(offset, m_model.size());
        ASSERT_EQ(m_fifo.ReadOffset(bytes, length, offset, &m_n), Result(from < m_model.size()));
        ASSERT_EQ(std::string(bytes, m_n), m_model.substr(from, length));
        ASSERT_EQ(m_fifo.Read(bytes, length, &m_n, nullptr), Result(!m_model.empty()));
        ASSERT_EQ(std::string(bytes, m_n), m_model.substr(0, length));
        Take(m_n);
    }

    void ReadRun(unsigned long length) {
        const auto* const run = static_cast<const char*>(m_fifo.GetReadData(&m_n));
        ASSERT_EQ(std::string(run, m_n), m_model.substr(0, m_capacity - m_place));
        m_fifo.ConsumeReadData(length);
        Take(std::min(length, m_model.size()));
    }

    void Take(unsigned long count) {
        m_model.erase(0, count);
        m_place = (m_place + count) % m_capacity;
    }

    // At the offset, and then before it.
    void Write(const std::string& bytes, unsigned long length, unsigned long offset) {
        const unsigned long room = m_isClosed ? 0 : Room();
        const unsigned long gap = std::min(offset, room);
        ASSERT_EQ(m_fifo.WriteOffset(bytes.data(), length, offset, &m_n), Result(offset < room));
        ASSERT_EQ(m_n, std::min(length, room - gap));
        const unsigned long buffered = m_n;
        ASSERT_EQ(m_fifo.Write(bytes.data(), gap, &m_n, nullptr), Result(room != 0));
        ASSERT_EQ(m_n, gap);
        m_fifo.ConsumeWriteBuffer(buffered);
        m_model += bytes.substr(0, gap) + bytes.substr(0, buffered);
    }

    // Consuming more than there is room for fills the buffer.
    void WriteRun(const std::string& bytes, unsigned long length) {
        char* const run = static_cast<char*>(m_fifo.GetWriteBuffer(&m_n));
        m_place = m_model.empty() && !m_isClosed ? 0 : m_place;
        const unsigned long end = m_capacity - (m_place + m_model.size()) % m_capacity;
        ASSERT_EQ(run == nullptr, m_isClosed);
        ASSERT_EQ(m_n, m_isClosed ? 0 : std::min(Room(), end));
        if (!m_isClosed) {
            const unsigned long written = bytes.copy(run, std::min(m_n, length));
            m_fifo.ConsumeWriteBuffer(m_n == Room() ? length : written);
            m_model += bytes.substr(0, written);
        }
    }

    void Resize(unsigned long size) {
        const bool isPossible = m_model.size() <= size && size <= c_top / 2;
        ASSERT_EQ(m_fifo.SetCapacity(size), isPossible ? 1 : 0);
        m_place = isPossible && size != m_capacity ? 0 : m_place;
        m_capacity = isPossible ? size : m_capacity;
    }

    CNxFifoBuffer m_fifo{10};
    std::string m_model;
    unsigned long m_capacity = 10;
    unsigned long m_place = 0;
    bool m_isClosed = false;
    unsigned long m_n = 0;
};

TEST(CNxFifoBuffer, TransfersWhatAStringWouldUntilItIsClosedAndDrained) {
    EXPECT_THROW(CNxFifoBuffer fifo(c_top), std::bad_alloc);
    std::mt19937 random(2);
    for (int life = 0; life < 100; ++life) {
        CWorld world;
        for (int step = 0; step < 500 && !HasFailure(); ++step) {
            std::string bytes(16, ' ');
            std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random()); });
            const unsigned long length = random() % 20 == 0 ? c_top - random() % 2 : random() % 14;
            const unsigned long offset = random() % 20 == 0 ? c_top - random() % 2 : random() % 6;
            switch (random() % 6) {
                case 0:
                    world.Read(length, offset);
                    break;
                case 1:
                    world.ReadRun(length);
                    break;
                case 2:
                    world.Write(bytes, length, offset);
                    break;
                case 3:
                    world.WriteRun(bytes, length);
                    break;
                default:
                    if (random() % 10 == 0) {
                        world.Resize(std::max(length, 1UL));
                    }
            }
            if (step == 450) {
                world.m_fifo.Close();
                world.m_isClosed = true;
            }
        }
    }
}

}  // namespace
