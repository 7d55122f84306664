#include <nx/event/CNxCallingThread.h>
#include <nx/foundation/CCancelOff.h>
#include <nx/foundation/CKeptErrno.h>
#include <nx/foundation/CNxCleanUpBase.h>
#include <nx/foundation/CNxEventThread.h>
#include <nx/foundation/CNxOwnLines.h>
#include <nx/foundation/CNxProcessWide.h>
#include <nx/foundation/CNxTimeUtils.h>
#include <nx/foundation/CNxTimeValue.h>
#include <nx/foundation/own_lines.h>
#include <nx/process/trace_setting.h>
#include <nx/reactor/CNxReactorEpoll.h>
#include <nx/thread/CNxThreadManagerImp.h>
#include <nx/thread/CNxThreadReactor.h>
#include <nx/thread/CNxThreadTask.h>
#include <nx/thread/CNxTimerPreciseManager.h>
#include <nx/thread/CThreadsEnd.h>
#include <nx/trace/CNxT120Trace.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cassert>
#include <csignal>
#include <cstdio>
#include <limits>
#include <new>
#include <utility>

namespace {

std::atomic<CNxThreadManager*> s_pThreadManagerOnlyOne{nullptr};
pthread_mutex_t s_creationMutex = PTHREAD_MUTEX_INITIALIZER;
std::atomic<INxObserver*> s_threadEndObserver{nullptr};

struct CCreationGuard {
    CCreationGuard() { pthread_mutex_lock(&s_creationMutex); }
    ~CCreationGuard() { pthread_mutex_unlock(&s_creationMutex); }
};

INxEventQueue* GetCallingThreadEventQueue() {
    return CNxThreadManager::Instance()->GetThreadEventQueue(NX_THREAD_CALLING);
}

template <class Thread>
Thread* MakeThread() {
    try {
        return new Thread;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

void DestroyRefused(CNxThread* thread) {
    const CKeptErrno keptErrno;
    thread->Destory(0);
}

bool InitThread(CNxThread* thread) {
    try {
        thread->OnThreadInit();
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

// With what has been said until now, if that is to be traced.
bool InitTracing() {
    try {
        trace_setting_init();
        if (CNxOwnLines::GetTarget() == CNxOwnLines::TO_TRACE) {
            CNxT120Trace::instance();
        }
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

constexpr long c_beforeAllTypes = std::numeric_limits<long>::min();

CNxThreadManagerImp* GetIfMade() {
    return static_cast<CNxThreadManagerImp*>(s_pThreadManagerOnlyOne.load());
}

// The order in which a start of the precise timers locks.
void OnBeforeFork() {
    CNxTimerPreciseManager::BeforeFork();
    pthread_mutex_lock(&s_creationMutex);
    if (GetIfMade() != nullptr) {
        GetIfMade()->BeforeFork();
    }
}

void OnForkInParent() {
    if (GetIfMade() != nullptr) {
        GetIfMade()->AfterForkInParent();
    }
    pthread_mutex_unlock(&s_creationMutex);
    CNxTimerPreciseManager::AfterForkInParent();
}

void OnForkInChild() {
    if (GetIfMade() != nullptr) {
        GetIfMade()->AfterForkInChild();
    }
    pthread_mutex_unlock(&s_creationMutex);
    CNxTimerPreciseManager::AfterForkInChild();
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
    thread->ApplyName();
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
    // Before the lock, which a fork takes. Without the memory for it a forked child has its
    // parent's threads in the registry.
    [[maybe_unused]] static const int s_forkNotice =
        pthread_atfork(&OnBeforeFork, &OnForkInParent, &OnForkInChild);
    const CCreationGuard guard;
    manager = s_pThreadManagerOnlyOne.load(std::memory_order_relaxed);
    if (manager == nullptr) {
        manager = new CNxThreadManagerImp;
        CNxProcessWide::SetTearDown(&CNxThreadManager::CleanupOnlyOne);
        CNxCallingThread::SetFinder(&GetCallingThreadEventQueue);
        s_pThreadManagerOnlyOne.store(manager, std::memory_order_release);
    }
    return manager;
}

void CNxThreadManager::CleanupOnlyOne() {
    CNxThreadManagerImp* const manager = GetIfMade();
    if (manager == nullptr) {
        CNxCleanUpBase::CleanupAll();
        return;
    }
    // A thread that still runs keeps the manager it knows.
    if (manager->TearDown()) {
        delete manager;
    }
}

void CNxThreadManager::SetTearDownLimit(const CNxTimeValue& limit) {
    CThreadsEnd::SetLimit(limit);
}

void CNxThreadManager::SetThreadEndObserver(INxObserver* observer) {
    s_threadEndObserver.store(observer);
}

INxObserver* CNxThreadManager::GetThreadEndObserver() {
    return s_threadEndObserver.load();
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
    if (GetAfter(c_beforeAllTypes) != nullptr) {
        return NX_ERROR_ALREADY_INITIALIZED;
    }
    // Only a reactor on signals needs it, and that one blocks them for its own thread as well.
    static_cast<void>(BlockSignal());
    auto* const thread = InitTracing() ? MakeThread<CNxThreadTask>() : nullptr;
    NxResult created =
        thread != nullptr ? thread->Create(NX_THREAD_MAIN, FLAG_JOINABLE) : NX_ERROR_FAILURE;
    if (created == NX_OK && !InitThread(thread)) {
        created = NX_ERROR_FAILURE;
    }
    if (created != NX_OK && thread != nullptr) {
        DestroyRefused(thread);
    }
    return created;
}

NxResult CNxThreadManagerImp::MainThreadDetachRun(CNxThread* thread) {
    if (thread == nullptr || thread->GetThreadType() != NX_THREAD_MAIN) {
        return NX_ERROR_FAILURE;
    }
    // The new thread has what lies on this stack.
    const CCancelOff cancelOff;
    CMainThreadStart start{thread, CNxEventThread(0, 0)};
    pthread_t handle{};
    const int error = pthread_create(&handle, nullptr, &MainThreadFun, &start);
    if (error != 0) {
        SayOnStderr("thread create failed\n");
        return ResultOfError(error);
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
    CNxThread* const thread = withTimerQueue != 0 ? MakeThread<CNxThreadTask>()
                                                  : MakeThread<CNxThreadTaskWithEventQueueOnly>();
    if (thread == nullptr) {
        return NX_ERROR_FAILURE;
    }
    const NxResult created = thread->Create(GetAndIncreamUserType(), flags);
    if (created != NX_OK) {
        DestroyRefused(thread);
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
    return ResultOfError(pthread_sigmask(SIG_BLOCK, &set, nullptr));
}

NxResult CNxThreadManagerImp::BlockSignal() {
    sigset_t set;
    if (sigemptyset(&set) != 0 || sigaddset(&set, SIGRTMIN) != 0 || sigaddset(&set, SIGIO) != 0) {
        return NX_ERROR_UNEXPECTED;
    }
    return pthread_sigmask(SIG_BLOCK, &set, nullptr) == 0 ? NX_OK : NX_ERROR_UNEXPECTED;
}

NxResult CNxThreadManagerImp::CreateNetworkThread(int type, INxReactor* reactor, CNxThread*& out) {
    auto* const thread = MakeThread<CNxThreadReactor>();
    if (thread == nullptr) {
        delete reactor;
        return NX_ERROR_FAILURE;
    }
    NxResult result = thread->Init(reactor);
    if (result == NX_OK) {
        result = thread->Create(type, FLAG_JOINABLE);
    }
    if (result != NX_OK) {
        DestroyRefused(thread);
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
    CNxThread* thread = nullptr;
    for (long type = c_beforeAllTypes; (thread = GetAfter(type)) != nullptr;) {
        type = thread->GetThreadType();
        // One that cannot be stopped does not keep the others from it.
        if (type != NX_THREAD_MAIN) {
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
    CNxThread* thread = nullptr;
    for (long type = c_beforeAllTypes; (thread = GetAfter(type)) != nullptr;) {
        type = thread->GetThreadType();
        if (type != NX_THREAD_MAIN && !CThreadsEnd::IsEndedByManager(thread)) {
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
    try {
        m_tearDownCopy.reserve(m_threads.size() + 1);
        m_threads.push_back(thread);
    } catch (const std::bad_alloc&) {
        return NX_ERROR_FAILURE;
    }
    m_forks = CNxProcessWide::CountForks();
    return NX_OK;
}

NxResult CNxThreadManagerImp::UnregisterThread(CNxThread* thread) {
    if (thread == nullptr) {
        return NX_ERROR_INVALID_ARG;
    }
    CNxMutexGuardT<CNxMutexThread> guard(m_registryMutex);
    if (m_areEnding) {
        return NX_ERROR_NOT_AVAILABLE;
    }
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

// The one with the next higher type; null after the last. A walk needs no memory, and misses nobody
// when others come and go meanwhile.
CNxThread* CNxThreadManagerImp::GetAfter(long type) {
    CNxMutexGuardT<CNxMutexThread> guard(m_registryMutex);
    CNxThread* next = nullptr;
    for (CNxThread* thread : m_threads) {
        const bool isCloser = next == nullptr || thread->GetThreadType() < next->GetThreadType();
        if (thread->GetThreadType() > type && isCloser) {
            next = thread;
        }
    }
    return next;
}

bool CNxThreadManagerImp::IsMainOrHasNone() {
    return GetThread(NX_THREAD_MAIN) == nullptr || IsEqualCurrentThread(NX_THREAD_MAIN);
}

void CNxThreadManagerImp::BeforeFork() NX_NO_THREAD_SAFETY_ANALYSIS {
    m_registryMutex.Lock();
}

void CNxThreadManagerImp::AfterForkInParent() NX_NO_THREAD_SAFETY_ANALYSIS {
    m_registryMutex.UnLock();
}

void CNxThreadManagerImp::AfterForkInChild() NX_NO_THREAD_SAFETY_ANALYSIS {
    try {
        m_ofParent.insert(m_ofParent.end(), m_threads.begin(), m_threads.end());
    } catch (const std::bad_alloc&) {
        // They are kept only so that a leak checker finds them.
        m_ofParent.clear();
    }
    m_threads.erase(std::remove_if(m_threads.begin(), m_threads.end(),
                                   [](const CNxThread* thread) {
                                       return !IsEqualCurrentThread(thread->GetThreadId());
                                   }),
                    m_threads.end());
    m_stopAsked.store(0);
    m_areEnding = false;
    m_registryMutex.UnLock();
}

bool CNxThreadManagerImp::IsUsedByThisProcess() {
    CNxMutexGuardT<CNxMutexThread> guard(m_registryMutex);
    return m_forks == CNxProcessWide::CountForks();
}

bool CNxThreadManagerImp::TearDown() {
    if (!IsUsedByThisProcess()) {
        // A forked child without threads of its own: the rest is its parent's.
        CNxCleanUpBase::CleanupAll();
        return false;
    }
    const bool mayStop = IsMainOrHasNone();
    if (mayStop) {
        // exit() may have been called within an event, for whose end a thread waits.
        CNxEventQueueBase::AbandonBatches();
        std::vector<CNxThread*> threads = TakeThreadsToEnd();
        CThreadsEnd::StopAndJoin(threads);
        LetThreadsGo(threads);
    }
    // Before the queues that it posts to are freed; once more in case a singleton has needed it.
    CNxTimerPreciseManager::EndAndJoin();
    CNxCleanUpBase::CleanupAll();
    CNxTimerPreciseManager::EndAndJoin();
    return mayStop && DestroyThreads();
}

// Until LetThreadsGo none of them is destroyed. Threads that are registered meanwhile are not among
// them.
std::vector<CNxThread*> CNxThreadManagerImp::TakeThreadsToEnd() {
    CNxMutexGuardT<CNxMutexThread> guard(m_registryMutex);
    assert(m_tearDownCopy.capacity() >= m_threads.size());
    m_areEnding = true;
    m_tearDownCopy.assign(m_threads.begin(), m_threads.end());
    return std::move(m_tearDownCopy);
}

void CNxThreadManagerImp::LetThreadsGo(std::vector<CNxThread*>& taken) {
    CNxMutexGuardT<CNxMutexThread> guard(m_registryMutex);
    m_areEnding = false;
    if (m_tearDownCopy.capacity() < taken.capacity()) {
        m_tearDownCopy.swap(taken);
    }
}

// The one registered first, which is registered no more; null when there is none.
CNxThread* CNxThreadManagerImp::TakeFirst() {
    CNxMutexGuardT<CNxMutexThread> guard(m_registryMutex);
    if (m_threads.empty()) {
        return nullptr;
    }
    CNxThread* const first = m_threads.front();
    m_threads.erase(m_threads.begin());
    return first;
}

// Destroys all or, while there is a thread that may use them, none.
bool CNxThreadManagerImp::DestroyThreads() {
    if (!CThreadsEnd::IsOnlyThread()) {
        return false;
    }
    while (CNxThread* const thread = TakeFirst()) {
        thread->Destory(0);
    }
    return true;
}
