#include <nx/foundation/CNxProcessWide.h>
#include <nx/trace/CTraceStamp.h>
#include <pthread.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cassert>
#include <cstdio>

namespace {

std::atomic<bool> s_isKernelId{false};

void Rebuild(CTraceStamp& stamp, time_t second, bool isKernelId) {
    tm local{};
    localtime_r(&second, &local);
    stamp.m_second = second;
    stamp.m_isKernelId = isKernelId;
    stamp.m_forks = CNxProcessWide::CountForks();
    stamp.m_day = local.tm_mday;
    stamp.m_month = local.tm_mon + 1;
    stamp.m_year = local.tm_year + 1900;
    int length = std::snprintf(stamp.m_text, sizeof(stamp.m_text), "[%02d/%02d/%04d %02d:%02d:%02d",
                               stamp.m_month, stamp.m_day, stamp.m_year, local.tm_hour,
                               local.tm_min, local.tm_sec);
    stamp.m_msOffset = static_cast<size_t>(length) + 1;
    length += std::snprintf(stamp.m_text + length, sizeof(stamp.m_text) - stamp.m_msOffset + 1,
                            ".000 pid=%d tid=%d] ", getpid(),
                            isKernelId ? gettid() : static_cast<int>(pthread_self()));
    stamp.m_length = static_cast<size_t>(length);
    assert(stamp.m_msOffset + 3 < stamp.m_length && stamp.m_length < sizeof(stamp.m_text));
}

}  // namespace

const CTraceStamp& CurrentTraceStamp() {
    // Without a constructor or destructor, so that it serves threads that outlive main, too.
    thread_local CTraceStamp s_stamp;
    timeval now{};
    gettimeofday(&now, nullptr);
    const bool isKernelId = s_isKernelId.load(std::memory_order_relaxed);
    if (s_stamp.m_length == 0 || now.tv_sec != s_stamp.m_second ||
        CNxProcessWide::CountForks() != s_stamp.m_forks || isKernelId != s_stamp.m_isKernelId) {
        Rebuild(s_stamp, now.tv_sec, isKernelId);
    }
    const auto ms = static_cast<unsigned int>(now.tv_usec / 1000);
    assert(ms < 1000);
    char* const digits = s_stamp.m_text + s_stamp.m_msOffset;
    digits[0] = static_cast<char>('0' + ms / 100);
    digits[1] = static_cast<char>('0' + ms / 10 % 10);
    digits[2] = static_cast<char>('0' + ms % 10);
    return s_stamp;
}

void SetKernelThreadIds(bool on) {
    s_isKernelId.store(on, std::memory_order_relaxed);
}
