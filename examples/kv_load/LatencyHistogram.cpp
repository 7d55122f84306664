#include <kv_load/LatencyHistogram.h>

#include <algorithm>

namespace kv_load {

std::uint64_t LatencyHistogram::GetQuantile(unsigned perMille) const {
    if (m_count == 0) {
        return 0;
    }
    // Divided first, so that no count overflows.
    const std::uint64_t whole = m_count / 1000 * perMille;
    const std::uint64_t rest = (m_count % 1000 * perMille + 999) / 1000;
    const std::uint64_t rank = std::clamp<std::uint64_t>(whole + rest, 1, m_count);
    std::uint64_t seen = 0;
    for (std::size_t bucket = 0; bucket < c_bucketCount; ++bucket) {
        seen += m_buckets[bucket];
        if (seen >= rank) {
            return std::min(HighestOf(bucket), m_max);
        }
    }
    return m_max;
}

std::uint64_t LatencyHistogram::HighestOf(std::size_t bucket) {
    if (bucket < 2 * c_linear) {
        return bucket;
    }
    const std::uint64_t shift = bucket / c_linear - 1;
    const std::uint64_t leading = bucket % c_linear + c_linear;
    return (leading << shift) + ((std::uint64_t{1} << shift) - 1);
}

}  // namespace kv_load
