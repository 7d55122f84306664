#include <nx/event/INxEventQueue.h>
#include <nx/foundation/CNxTimeUtils.h>
#include <nx/foundation/CNxTimeValue.h>
#include <nx/foundation/own_lines.h>
#include <nx/thread/CNxThread.h>
#include <nx/thread/CThreadsEnd.h>
#include <sys/stat.h>

#include <atomic>
#include <cstddef>
#include <utility>

namespace {

std::atomic<long> s_tearDownLimitMs{10000};
constexpr CNxTimeValue c_noLimit(1000000000L);  // 30 years
constexpr int c_joinedIsGoneMs = 50;

// Whether a thread that returned this from Stop will leave its loop.
bool IsEnding(NxResult stopped) {
    return stopped == NX_OK || stopped == NX_ERROR_NOT_INITIALIZED;
}

// Whether its loop will not be run any more: the caller is the one who would.
bool IsAbandoned(const CNxThread* thread) {
    return thread->GetEnd() == CNxThread::EEnd::BY_APPLICATION ||
           CNxThreadManager::IsEqualCurrentThread(thread->GetThreadId());
}

}  // namespace

void CThreadsEnd::SetLimit(const CNxTimeValue& limit) {
    s_tearDownLimitMs.store(limit > c_noLimit ? c_noLimit.GetTotalInMsec()
                                              : limit.GetTotalInMsec());
}

bool CThreadsEnd::IsEndedByManager(const CNxThread* thread) {
    return thread->GetEnd() == CNxThread::EEnd::AFTER_ALL_OTHERS;
}

// A thread that was just joined may still be counted, so others are looked at a little longer.
bool CThreadsEnd::IsOnlyThread() {
    for (int waited = 0; waited < c_joinedIsGoneMs; ++waited) {
        struct stat tasks {};
        // A folder has a link for itself, one from its parent, and one from each folder in it.
        if (stat("/proc/self/task", &tasks) == 0 && tasks.st_nlink == 3) {
            return true;
        }
        cnx_sleep_ms(1);
    }
    return false;
}

// Whether it is on its way to its end: that is waited for however long it takes.
bool CThreadsEnd::Stop(CNxThread* thread) {
    if (IsEndedByManager(thread) || thread->GetEnd() == CNxThread::EEnd::WITH_ANOTHER) {
        return false;
    }
    if (IsAbandoned(thread)) {
        if (thread->GetEnd() == CNxThread::EEnd::BY_STOP &&
            thread->GetThreadType() != NX_THREAD_MAIN) {
            thread->StopForCertain(nullptr);
        }
        // A thread that waits for a result could not be joined.
        INxEventQueue* const queue = thread->GetEventQueue();
        if (queue != nullptr) {
            queue->StopAndDestoryPendingEvents();
        }
        return false;
    }
    const NxResult stopped = thread->StopForCertain(nullptr);
    return !thread->IsRunning() || IsEnding(stopped);
}

// Threads that cannot be told to stop may come to their end all the same.
void CThreadsEnd::JoinWithinLimit(const std::vector<CNxThread*>& threads) {
    const long limitMs = s_tearDownLimitMs.load();
    const CNxTimeValue deadline =
        CNxTimeValue::GetMonotonicTime() + CNxTimeValue(limitMs / 1000, limitMs % 1000 * 1000);
    for (CNxThread* thread : threads) {
        if (!IsEndedByManager(thread) && thread->JoinUntil(deadline) == NX_ERROR_TIMEOUT) {
            SayOnStderr("nxbase: thread %d has not ended in %ld ms and is left behind\n",
                        thread->GetThreadType(), limitMs);
        }
    }
}

void CThreadsEnd::StopAndJoin(std::vector<CNxThread*>& threads) {
    size_t ending = 0;
    for (CNxThread*& thread : threads) {
        if (Stop(thread)) {
            std::swap(threads[ending++], thread);
        }
    }
    for (size_t i = 0; i < ending; ++i) {
        threads[i]->Join();
    }
    threads.erase(threads.begin(), threads.begin() + static_cast<std::ptrdiff_t>(ending));
    JoinWithinLimit(threads);
}
