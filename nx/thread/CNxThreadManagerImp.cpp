#include <nx/event/CNxCallingThread.h>
#include <nx/foundation/CCancelOff.h>
#include <nx/foundation/CNxCleanUpBase.h>
#include <nx/foundation/CNxEventThread.h>
#include <nx/foundation/CNxProcessWide.h>
#include <nx/foundation/CNxTimeUtils.h>
#include <nx/process/trace_setting.h>
#include <nx/reactor/CNxReactorEpoll.h>
#include <nx/thread/CNxThreadManagerImp.h>
#include <nx/thread/CNxThreadReactor.h>
#include <nx/thread/CNxThreadTask.h>
#include <nx/thread/CNxTimerPreciseManager.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cassert>
#include <csignal>
#include <cstdio>

namespace {

std::atomic<CNxThreadManager*> s_pThreadManagerOnlyOne{nullptr};
pthread_mutex_t s_creationMutex = PTHREAD_MUTEX_INITIALIZER;

INxEventQueue* GetCallingThreadEventQueue() {
    return CNxThreadManager::Instance()->GetThreadEventQueue(NX_THREAD_CALLING);
}

// Whether a thread that returned this from Stop will leave its loop.
bool IsEnding(NxResult stopped) {
    return stopped == NX_OK || stopped == NX_ERROR_NOT_INITIALIZED;
}

bool IsEndedByManager(const CNxThread* thread) {
    return thread->GetEnd() == CNxThread::EEnd::AFTER_ALL_OTHERS;
}

// A loop on a thread of the application's own: nobody can tell whether it has ended.
bool IsDrivenElsewhere(const CNxThread* thread) {
    const unsigned long id = thread->GetThreadId();
    return id != 0 && !CNxThreadManager::IsEqualCurrentThread(id) &&
           thread->GetEnd() != CNxThread::EEnd::WITH_ANOTHER;
}

// Whether its loop will not be run any more: the caller is the one who would.
bool IsAbandoned(const CNxThread* thread) {
    return thread->GetEnd() == CNxThread::EEnd::BY_APPLICATION ||
           CNxThreadManager::IsEqualCurrentThread(thread->GetThreadId());
}

struct CMainThreadStart {
    CNxThread* m_thread;
    CNxEventThread m_takenOver;
};

void* MainThreadFun(void* argument) {
    auto* const start = static_cast<CMainThreadStart*>(argument);
    CNxThread* const thread = start->m_thread;
    pthread_detach(pthread_self());
    thread->BindToCallingThread();
    start->m_takenOver.Signal();
    thread->OnThreadRun();
    // The system will give the id to another thread.
    thread->SetThreadId(0);
    return nullptr;
}

}  // namespace

CNxThreadManager* CNxThreadManager::Instance() {
    CNxThreadManager* manager = s_pThreadManagerOnlyOne.load(std::memory_order_acquire);
    if (manager != nullptr) {
        return manager;
    }
    pthread_mutex_lock(&s_creationMutex);
    manager = s_pThreadManagerOnlyOne.load(std::memory_order_relaxed);
    if (manager == nullptr) {
        manager = new CNxThreadManagerImp;
        CNxProcessWide::SetTearDown(&CNxThreadManager::CleanupOnlyOne);
        CNxCallingThread::SetFinder(&GetCallingThreadEventQueue);
        s_pThreadManagerOnlyOne.store(manager, std::memory_order_release);
    }
    pthread_mutex_unlock(&s_creationMutex);
    return manager;
}

void CNxThreadManager::CleanupOnlyOne() {
    auto* const manager = static_cast<CNxThreadManagerImp*>(s_pThreadManagerOnlyOne.load());
    if (manager == nullptr) {
        CNxCleanUpBase::CleanupAll();
        return;
    }
    // A thread that still runs keeps the manager it knows.
    if (manager->TearDown()) {
        delete manager;
    }
}

INxReactor* CNxThreadManager::CreateNetworkReactor() {
    return new CNxReactorEpoll;
}

NxResult CNxThreadManager::SocketStartup() {
    return NX_OK;
}

NxResult CNxThreadManager::SocketCleanup() {
    return NX_OK;
}

unsigned long CNxThreadManager::GetThreadSelfId() {
    return pthread_self();
}

bool CNxThreadManager::IsThreadEqual(unsigned long a, unsigned long b) {
    return a == b;
}

bool CNxThreadManager::IsEqualCurrentThread(unsigned long id) {
    return IsThreadEqual(id, GetThreadSelfId());
}

bool CNxThreadManager::IsEqualCurrentThread(int type) {
    const CNxThread* const thread = Instance()->GetThread(type);
    return thread != nullptr && IsEqualCurrentThread(thread->GetThreadId());
}

void CNxThreadManager::SleepMs(unsigned long ms) {
    cnx_sleep_ms(ms);
}

int CNxThreadManager::GetNetworkThreadModule() {
    return NX_THREAD_NETWORK;
}

CNxThreadManagerImp::CCpuPlan::CCpuPlan(long processors) {
    const int last = static_cast<int>(processors) - 1;
    if (processors == 2) {
        m_cpus[0] = 0;
        m_cpus[1] = 1;
    } else if (processors > 2) {
        const int plan[c_plannedCpus] = {0, 1, 2, last, 2};
        std::copy(std::begin(plan), std::end(plan), std::begin(m_cpus));
    }
}

int CNxThreadManagerImp::GetPlannedCpu(int index) const {
    return index >= 0 && index < c_plannedCpus ? m_cpuPlan.m_cpus[index] : -1;
}

CNxThreadManagerImp::CNxThreadManagerImp()
    : m_processors(sysconf(_SC_NPROCESSORS_ONLN)), m_cpuPlan(m_processors) {}

CNxThreadManagerImp::~CNxThreadManagerImp() {
    CNxCallingThread::SetFinder(nullptr);
    s_pThreadManagerOnlyOne.store(nullptr);
}

NxResult CNxThreadManagerImp::InitMainThread(int /*argc*/, char** /*argv*/) {
    // An ended one that nobody but the library knows is not in the way.
    CNxTimerPreciseManager::DestroyEnded();
    if (!CopyRegistry().empty()) {
        return NX_ERROR_ALREADY_INITIALIZED;
    }
    // Only a reactor on signals needs it, and that one blocks them for its own thread as well.
    static_cast<void>(BlockSignal());
    trace_setting_init();
    auto* const thread = new CNxThreadTask;
    const NxResult created = thread->Create(NX_THREAD_MAIN, FLAG_JOINABLE);
    if (created != NX_OK) {
        thread->Destory(0);
        return created;
    }
    thread->OnThreadInit();
    return NX_OK;
}

NxResult CNxThreadManagerImp::MainThreadDetachRun(CNxThread* thread) {
    if (thread == nullptr || thread->GetThreadType() != NX_THREAD_MAIN) {
        return NX_ERROR_FAILURE;
    }
    // The new thread has what lies on this stack.
    const CCancelOff cancelOff;
    CMainThreadStart start{thread, CNxEventThread(0, 0)};
    pthread_t handle{};
    if (pthread_create(&handle, nullptr, &MainThreadFun, &start) != 0) {
        std::fprintf(stderr, "thread create failed\n");
        return NX_ERROR_FAILURE;
    }
    while (start.m_takenOver.Wait(nullptr) != NX_OK) {
    }
    return NX_OK;
}

CNxThread* CNxThreadManagerImp::GetThread(int type) {
    CNxMutexGuardT<CNxMutexThread> guard(m_registryMutex);
    for (CNxThread* thread : m_threads) {
        const bool found = type == NX_THREAD_CALLING ? IsEqualCurrentThread(thread->GetThreadId())
                                                     : thread->GetThreadType() == type;
        if (found) {
            return thread;
        }
    }
    return nullptr;
}

INxReactor* CNxThreadManagerImp::GetThreadReactor(int type) {
    CNxThread* const thread = GetThread(type);
    return thread != nullptr ? thread->GetReactor() : nullptr;
}

INxEventQueue* CNxThreadManagerImp::GetThreadEventQueue(int type) {
    CNxThread* const thread = GetThread(type);
    return thread != nullptr ? thread->GetEventQueue() : nullptr;
}

INxTimerQueue* CNxThreadManagerImp::GetThreadTimerQueue(int type) {
    CNxThread* const thread = GetThread(type);
    return thread != nullptr ? thread->GetTimerQueue() : nullptr;
}

NxResult CNxThreadManagerImp::CreateUserTaskThread(CNxThread*& out, TFlag flags,
                                                   int withTimerQueue) {
    CNxThread* const thread = withTimerQueue != 0
                                  ? static_cast<CNxThread*>(new CNxThreadTask)
                                  : static_cast<CNxThread*>(new CNxThreadTaskWithEventQueueOnly);
    const NxResult created = thread->Create(GetAndIncreamUserType(), flags);
    if (created != NX_OK) {
        thread->Destory(0);
        return created;
    }
    out = thread;
    return NX_OK;
}

int CNxThreadManagerImp::GetAndIncreamUserType() {
    CNxMutexGuardT<CNxMutexThread> guard(m_registryMutex);
    return static_cast<int>(++m_lastUserType);
}

NxResult CNxThreadManagerImp::DisableSignal(int signo) {
    sigset_t set;
    if (sigemptyset(&set) != 0 || sigaddset(&set, signo) != 0) {
        return NX_ERROR_FAILURE;
    }
    return pthread_sigmask(SIG_BLOCK, &set, nullptr) == 0 ? NX_OK : NX_ERROR_FAILURE;
}

NxResult CNxThreadManagerImp::BlockSignal() {
    sigset_t set;
    if (sigemptyset(&set) != 0 || sigaddset(&set, SIGRTMIN) != 0 || sigaddset(&set, SIGIO) != 0) {
        return NX_ERROR_UNEXPECTED;
    }
    return pthread_sigmask(SIG_BLOCK, &set, nullptr) == 0 ? NX_OK : NX_ERROR_UNEXPECTED;
}

NxResult CNxThreadManagerImp::CreateNetworkThread(int type, INxReactor* reactor, CNxThread*& out) {
    auto* const thread = new CNxThreadReactor;
    NxResult result = thread->Init(reactor);
    if (result == NX_OK) {
        result = thread->Create(type, FLAG_JOINABLE);
    }
    if (result != NX_OK) {
        thread->Destory(0);
        return result;
    }
    out = thread;
    return NX_OK;
}

NxResult CNxThreadManagerImp::CreateReactorThread(int type, INxReactor* reactor, CNxThread*& out) {
    return CreateNetworkThread(type, reactor, out);
}

NxResult CNxThreadManagerImp::StopAllThreads(CNxTimeValue* timeout) {
    if (!IsMainOrHasNone()) {
        return NX_ERROR_FAILURE;
    }
    for (CNxThread* thread : CopyRegistry()) {
        // One that cannot be stopped does not keep the others from it.
        if (thread->GetThreadType() != NX_THREAD_MAIN) {
            static_cast<void>(thread->StopForCertain(timeout));
        }
    }
    m_stopAsked.store(1);
    return NX_OK;
}

NxResult CNxThreadManagerImp::JoinAllThreads() {
    if (!IsMainOrHasNone()) {
        return NX_ERROR_FAILURE;
    }
    for (CNxThread* thread : CopyRegistry()) {
        if (thread->GetThreadType() != NX_THREAD_MAIN && !IsEndedByManager(thread)) {
            thread->Join();
        }
    }
    if (m_stopAsked.exchange(0) != 0) {
        CNxTimerPreciseManager::EndAndJoin();
    }
    return NX_OK;
}

NxResult CNxThreadManagerImp::RegisterThread(CNxThread* thread) {
    if (thread == nullptr) {
        return NX_ERROR_INVALID_ARG;
    }
    CNxMutexGuardT<CNxMutexThread> guard(m_registryMutex);
    for (const CNxThread* other : m_threads) {
        if (other == thread || other->GetThreadType() == thread->GetThreadType()) {
            return NX_ERROR_FOUND;
        }
    }
    m_threads.push_back(thread);
    return NX_OK;
}

NxResult CNxThreadManagerImp::UnregisterThread(CNxThread* thread) {
    if (thread == nullptr) {
        return NX_ERROR_INVALID_ARG;
    }
    CNxMutexGuardT<CNxMutexThread> guard(m_registryMutex);
    const auto found = std::find_if(m_threads.begin(), m_threads.end(), [thread](CNxThread* other) {
        return other == thread || other->GetThreadType() == thread->GetThreadType();
    });
    if (found == m_threads.end()) {
        return NX_ERROR_NOT_FOUND;
    }
    m_threads.erase(found);
    assert(std::find(m_threads.begin(), m_threads.end(), thread) == m_threads.end());
    return NX_OK;
}

NxResult CNxThreadManagerImp::GetSingletonMutex(CNxMutexThreadRecursive*& mutex) {
    mutex = &CNxProcessWide::GetSingletonMutex();
    return NX_OK;
}

NxResult CNxThreadManagerImp::GetReferenceControlMutex(CNxMutexThread*& mutex) {
    mutex = &CNxProcessWide::GetReferenceControlMutex();
    return NX_OK;
}

std::vector<CNxThread*> CNxThreadManagerImp::CopyRegistry() {
    CNxMutexGuardT<CNxMutexThread> guard(m_registryMutex);
    return m_threads;
}

bool CNxThreadManagerImp::IsMainOrHasNone() {
    return GetThread(NX_THREAD_MAIN) == nullptr || IsEqualCurrentThread(NX_THREAD_MAIN);
}

bool CNxThreadManagerImp::TearDown() {
    const bool mayStop = IsMainOrHasNone();
    if (mayStop) {
        // exit() may have been called within an event, for whose end a thread waits.
        CNxEventQueueBase::AbandonBatches();
        StopAndJoinForTearDown();
    }
    // Before the queues that it posts to are freed; once more in case a singleton has needed it.
    CNxTimerPreciseManager::EndAndJoin();
    CNxCleanUpBase::CleanupAll();
    CNxTimerPreciseManager::EndAndJoin();
    return mayStop && DestroyThreads();
}

// Joins only what is on its way to its end: a thread that cannot be stopped must not keep the
// process.
void CNxThreadManagerImp::StopAndJoinForTearDown() {
    std::vector<CNxThread*> ending;
    for (CNxThread* thread : CopyRegistry()) {
        if (IsEndedByManager(thread) || thread->GetEnd() == CNxThread::EEnd::WITH_ANOTHER) {
            continue;
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
            continue;
        }
        const NxResult stopped = thread->StopForCertain(nullptr);
        if (!thread->IsRunning() || IsEnding(stopped)) {
            ending.push_back(thread);
        }
    }
    for (CNxThread* thread : ending) {
        thread->Join();
    }
}

// Destroys all or, while one runs that may use the others, none.
bool CNxThreadManagerImp::DestroyThreads() {
    const std::vector<CNxThread*> threads = CopyRegistry();
    if (CNxThread::DoesAnyRun() ||
        std::any_of(threads.begin(), threads.end(), &IsDrivenElsewhere)) {
        return false;
    }
    for (CNxThread* thread : threads) {
        thread->Destory(0);
    }
    return true;
}
