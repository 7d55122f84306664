// Counts durations so that any quantile can be told at the end, at the cost of one increment each.
#pragma once

#include <algorithm>
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
        const auto value = static_cast<std::uint64_t>(std::max<std::int64_t>(duration, 0));
        ++m_buckets[BucketOf(value)];
        ++m_count;
        m_max = std::max(m_max, value);
    }

    std::uint64_t GetCount() const { return m_count; }

    // A value that `perMille` thousandths of what was recorded do not exceed (500: the median),
    // exact for 1000; 0 when nothing was recorded.
    std::uint64_t GetQuantile(unsigned perMille) const {
        const std::uint64_t rank = (m_count * perMille + 999) / 1000;
        std::size_t bucket = 0;
        for (std::uint64_t seen = m_buckets[0]; seen < rank; seen += m_buckets[bucket]) {
            ++bucket;
        }
        return std::min(HighestOf(bucket), m_max);
    }

private:
    static constexpr unsigned c_linearBits = 7;
    static constexpr std::uint64_t c_linear = std::uint64_t{1} << c_linearBits;

    // Below 2 * c_linear a value is its own bucket. Above, the leading bits of the value choose the
    // bucket within its power of two.
    static std::size_t BucketOf(std::uint64_t value) {
        const int leading = 63 - __builtin_clzll(value | c_linear);
        const unsigned shift = static_cast<unsigned>(leading) - c_linearBits;
        return (shift << c_linearBits) + (value >> shift);
    }

    static std::uint64_t HighestOf(std::size_t bucket) {
        const std::uint64_t shift = bucket < c_linear ? 0 : bucket / c_linear - 1;
        return ((bucket - shift * c_linear + 1) << shift) - 1;
    }

    std::array<std::uint64_t, (64 - c_linearBits + 1) * c_linear> m_buckets{};
    std::uint64_t m_count = 0;
    std::uint64_t m_max = 0;
};

}  // namespace kv_load
