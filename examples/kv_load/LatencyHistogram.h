// Counts durations so that any quantile can be told at the end, at the cost of one increment each.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace kv_load {

// A log-linear histogram: every power of two is cut into 128 equal buckets, so that a quantile is
// exact below 256 and at most 1/128 too high above. 58 KiB, whatever is recorded.
// For one thread, without locks.
class LatencyHistogram {
public:
    // Any unit; a negative duration counts as 0.
    void Record(std::int64_t duration) {
        const std::uint64_t value = duration > 0 ? static_cast<std::uint64_t>(duration) : 0;
        ++m_buckets[BucketOf(value)];
        ++m_count;
        m_max = value > m_max ? value : m_max;
    }

    std::uint64_t GetCount() const { return m_count; }

    // Exact; 0 when nothing was recorded.
    std::uint64_t GetMax() const { return m_max; }

    // A value that `perMille` thousandths of what was recorded do not exceed (500: the median),
    // 1000 for the maximum; 0 when nothing was recorded.
    std::uint64_t GetQuantile(unsigned perMille) const;

private:
    static constexpr unsigned c_linearBits = 7;
    static constexpr std::uint64_t c_linear = std::uint64_t{1} << c_linearBits;
    static constexpr std::size_t c_bucketCount = (64 - c_linearBits + 1) * c_linear;

    // Below 2 * c_linear a value is its own bucket. Above, the leading bits of the value choose the
    // bucket within its power of two.
    static std::size_t BucketOf(std::uint64_t value) {
        if (value < c_linear) {
            return value;
        }
        const unsigned shift = 63U - static_cast<unsigned>(__builtin_clzll(value)) - c_linearBits;
        return (shift << c_linearBits) + (value >> shift);
    }

    static std::uint64_t HighestOf(std::size_t bucket);

    std::array<std::uint64_t, c_bucketCount> m_buckets{};
    std::uint64_t m_count = 0;
    std::uint64_t m_max = 0;
};

}  // namespace kv_load
