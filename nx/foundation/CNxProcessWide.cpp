#include <nx/foundation/CNxProcessWide.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

using TearDown = void (*)();

std::atomic<TearDown> s_tearDown{nullptr};

std::atomic<unsigned int> s_forks{0};

// In the child. A recursive mutex cannot be unlocked there by whoever locked it before the fork,
// and a thread that held it is not there at all: both mutexes start anew.
void NoticeFork() {
    s_forks.fetch_add(1, std::memory_order_relaxed);
    new (&CNxProcessWide::GetSingletonMutex()) CNxMutexThreadRecursive;
    new (&CNxProcessWide::GetReferenceControlMutex()) CNxMutexThread;
}

[[maybe_unused]] const int s_forkNotice = pthread_atfork(nullptr, nullptr, &NoticeFork);

// Forgets it first: what is made later during exit() is torn down as well.
void RunTearDown() {
    const TearDown tearDown = s_tearDown.exchange(nullptr);
    if (tearDown != nullptr) {
        tearDown();
    }
}

}  // namespace

// Never destroyed, and first used perhaps where there is no memory.
CNxMutexThreadRecursive& CNxProcessWide::GetSingletonMutex() {
    alignas(CNxMutexThreadRecursive) static char s_place[sizeof(CNxMutexThreadRecursive)];
    static auto* const s_mutex = new (s_place) CNxMutexThreadRecursive;
    return *s_mutex;
}

CNxMutexThread& CNxProcessWide::GetReferenceControlMutex() {
    alignas(CNxMutexThread) static char s_place[sizeof(CNxMutexThread)];
    static auto* const s_mutex = new (s_place) CNxMutexThread;
    return *s_mutex;
}

void CNxProcessWide::SetTearDown(TearDown tearDown) {
    if (s_tearDown.exchange(tearDown) == nullptr) {
        std::atexit(&RunTearDown);
    }
}

void CNxProcessWide::SetTearDownIfNone(TearDown tearDown) {
    TearDown none = nullptr;
    if (s_tearDown.compare_exchange_strong(none, tearDown)) {
        std::atexit(&RunTearDown);
    }
}

unsigned int CNxProcessWide::CountForks() {
    return s_forks.load(std::memory_order_relaxed);
}
