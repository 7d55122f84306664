#include <nx/resolve/CNxDnsRecord.h>

#include <algorithm>
#include <cassert>
#include <utility>

namespace {

constexpr long c_shortestSeconds = 1;
constexpr long c_longestSeconds = 3600;
constexpr long c_failureSeconds = 5;

}  // namespace

NxResult CNxDnsRecord::GetFirstIPAddr(CNxInetAddr& address) const {
    if (m_addresses.empty()) {
        return NX_ERROR_NOT_AVAILABLE;
    }
    address = m_addresses.front();
    return NX_OK;
}

void CNxDnsRecord::Complete(NxResult result, std::vector<CNxInetAddr> addresses, long ttlSeconds) {
    assert(m_expireTime == CNxTimeValue::s_tvZero());
    assert(result == NX_OK || addresses.empty());
    m_result = result == NX_OK && addresses.empty() ? NX_ERROR_NOT_AVAILABLE : result;
    m_addresses = std::move(addresses);
    const long seconds = m_result == NX_OK
                             ? std::clamp(ttlSeconds, c_shortestSeconds, c_longestSeconds)
                             : c_failureSeconds;
    m_resolveTime = CNxTimeValue::GetMonotonicTime();
    m_expireTime = m_resolveTime + CNxTimeValue(seconds);
}
