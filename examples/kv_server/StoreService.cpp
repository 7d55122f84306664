#include <common/Clock.h>
#include <kv_server/StoreService.h>

#include <algorithm>

namespace kv_server {

namespace {

// So many go fast enough for nobody to notice; the rest waits for the next turn.
constexpr std::size_t c_removedAtOnce = 10000;
constexpr std::int64_t c_msPerSecond = 1000;
constexpr std::int64_t c_usPerMs = 1000;

std::int64_t NowMs() {
    return examples::NowNs() / (examples::c_nsPerSecond / c_msPerSecond);
}

}  // namespace

void StoreService::Run(Batch& batch) {
    m_store.SetTime(NowMs());
    m_runner.Run(batch);
    ScheduleExpiry();
}

void StoreService::Close() {
    m_timers.CancelTimer(this);
    m_store.Clear();
}

void StoreService::OnTimeout(const CNxTimeValue& /*curTime*/, void* /*token*/) {
    m_nextExpiry.reset();
    m_store.SetTime(NowMs());
    m_store.RemoveExpired(c_removedAtOnce);
    ScheduleExpiry();
}

// One timer, for the key that expires first. It may come early when the system's clock is set, and
// is then set again.
void StoreService::ScheduleExpiry() {
    const std::optional<std::int64_t> next = m_store.GetNextExpiry();
    if (!next.has_value() || next == m_nextExpiry) {
        return;
    }
    m_nextExpiry = next;
    const std::int64_t wait = std::max<std::int64_t>(*next - m_store.GetTime(), 0);
    const CNxTimeValue interval(wait / c_msPerSecond, wait % c_msPerSecond * c_usPerMs);
    static_cast<void>(m_timers.ScheduleTimer(this, nullptr, interval, 1));
}

}  // namespace kv_server
