#include <nx/event/NxCall.h>
#include <nx/foundation/CCallOut.h>
#include <nx/foundation/CCancelOff.h>
#include <nx/foundation/CKeptErrno.h>
#include <nx/foundation/CNxProcessWide.h>
#include <nx/foundation/CNxTimeUtils.h>
#include <nx/foundation/CNxTimeValue.h>
#include <nx/foundation/INxObserver.h>
#include <nx/reactor/INxReactor.h>
#include <nx/thread/CNxThread.h>
#include <nx/trace/CNxT120Trace.h>
#include <nx/trace/CNxTraceManager.h>
#include <pthread.h>
#include <sched.h>

#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

// How the new thread tells the one in Create that it is up, or that it is not going to be.
class CNxThread::CStartEvent : public CNxEventThread {
public:
    NxResult m_result = NX_OK;
};

namespace {

constexpr size_t c_longestName = 15;
constexpr unsigned long c_maxProcessors = 1024;
constexpr unsigned long c_pollMs = 5;

// Reads "1,3" into `set`; false when it names no processor.
bool ParseCpuSet(const CNxString& text, cpu_set_t& set) {
    CPU_ZERO(&set);
    const char* at = text.c_str();
    while (*at != '\0') {
        char* end = nullptr;
        const unsigned long number = std::strtoul(at, &end, 10);
        const bool isNumber = end != at && *at != '-' && (*end == ',' || *end == '\0');
        if (isNumber && number < c_maxProcessors) {
            CPU_SET(number, &set);
        }
        while (*end != ',' && *end != '\0') {
            ++end;
        }
        at = *end == ',' ? end + 1 : end;
    }
    return CPU_COUNT(&set) != 0;
}

void ApplyCpuSet(const CNxString& text) {
    cpu_set_t set;
    if (ParseCpuSet(text, set)) {
        pthread_setaffinity_np(pthread_self(), sizeof(set), &set);
    }
}

}  // namespace

NxResult CNxThread::Create(int type, CNxThreadManager::TFlag flags) {
    const NxResult prepared = PrepareCreate(type, flags);
    if (prepared != NX_OK) {
        return prepared;
    }
    if (type == NX_THREAD_MAIN) {
        SetThreadId(CNxThreadManager::GetThreadSelfId());
        return NX_OK;
    }
    return StartSystemThread();
}

NxResult CNxThread::CreateNotRun(int type, CNxThreadManager::TFlag flags) {
    const NxResult prepared = PrepareCreate(type, flags);
    if (prepared == NX_OK) {
        SetThreadId(CNxThreadManager::GetThreadSelfId());
    }
    return prepared;
}

NxResult CNxThread::PrepareCreate(int type, CNxThreadManager::TFlag flags) {
    if (m_type != -1) {
        return NX_ERROR_ALREADY_INITIALIZED;
    }
    if (type == -1) {
        return NX_ERROR_INVALID_ARG;
    }
    m_type = type;
    m_flags = flags == CNxThreadManager::FLAG_NONE ? CNxThreadManager::FLAG_JOINABLE : flags;
    if (CNxThreadManager::Instance()->RegisterThread(this) != NX_OK) {
        return NX_ERROR_FAILURE;
    }
    m_registered.store(1);
    return NX_OK;
}

NxResult CNxThread::RegisterAs(int type, unsigned long id, unsigned long handle) {
    m_type = type;
    // Nothing runs for the object, so Destory has nothing to wait for.
    m_flags = CNxThreadManager::FLAG_JOINABLE;
    SetThreadId(id);
    m_threadHandle = handle;
    const NxResult result = CNxThreadManager::Instance()->RegisterThread(this);
    m_registered.store(result == NX_OK ? 1 : 0);
    return result;
}

NxResult CNxThread::StartSystemThread() {
    // The new thread has the event that lies on this stack.
    const CCancelOff cancelOff;
    CStartEvent startEvent;
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0) {
        return NX_ERROR_UNEXPECTED;
    }
    const bool joinable = IsJoinable();
    pthread_attr_setdetachstate(&attributes,
                                joinable ? PTHREAD_CREATE_JOINABLE : PTHREAD_CREATE_DETACHED);
    assert(m_life.load() == ELife::NONE && m_startEvent == nullptr);
    m_startEvent = &startEvent;
    m_forks = CNxProcessWide::CountForks();
    m_life.store(ELife::STARTING);
    pthread_t handle{};
    const int error = pthread_create(&handle, &attributes, &CNxThread::ThreadProc, this);
    pthread_attr_destroy(&attributes);
    if (error != 0) {
        m_startEvent = nullptr;
        m_life.store(ELife::NONE);
        errno = error;
        return NX_ERROR_UNEXPECTED;
    }
    // From here on the object may delete itself: only locals are touched.
    while (startEvent.Wait(nullptr) != NX_OK) {
    }
    if (startEvent.m_result != NX_OK && joinable) {
        pthread_join(handle, nullptr);
    }
    if (startEvent.m_result == NX_ERROR_FAILURE) {
        errno = ENOMEM;  // as it is on the new thread
    }
    return startEvent.m_result;
}

// GetReactor is not const, for the reactor that it gives is not.
CNxString CNxThread::GetDefaultName() const {
    switch (m_type) {
        case NX_THREAD_MAIN:
            return "nx-main";
        case NX_THREAD_NETWORK:
            return "nx-network";
        case NX_THREAD_PRECISE_TIMER:
            return "nx-timer";
        default:
            const bool hasReactor = const_cast<CNxThread*>(this)->GetReactor() != nullptr;
            char name[32];
            std::snprintf(name, sizeof(name), hasReactor ? "nx-reactor-%d" : "nx-task-%d", m_type);
            return CNxString(name).substr(0, c_longestName);
    }
}

void CNxThread::SetName(const CNxString& name) {
    m_name = name.substr(0, c_longestName);
    if (CNxThreadManager::IsEqualCurrentThread(GetThreadId())) {
        ApplyName();
    }
}

void CNxThread::ApplyName() {
    // Refused only to a name that is too long.
    static_cast<void>(pthread_setname_np(pthread_self(), GetName().c_str()));
}

void* CNxThread::ThreadProc(void* object) {
    auto* const thread = static_cast<CNxThread*>(object);
    if (thread != nullptr) {
        thread->Run();
    }
    return nullptr;
}

// NX_ERROR_NULL_POINTER when the thread refuses, NX_ERROR_FAILURE when it finds no memory.
NxResult CNxThread::SetUp() {
    try {
        if (OnCreate() != NX_OK) {
            return NX_ERROR_NULL_POINTER;
        }
        OnThreadInit();
    } catch (const std::bad_alloc&) {
        return NX_ERROR_FAILURE;
    }
    return NX_OK;
}

void CNxThread::Run() {
    SetThreadId(CNxThreadManager::GetThreadSelfId());
    m_threadHandle = GetThreadId();
    ApplyCpuSet(m_cpuSet);
    CStartEvent* const startEvent = m_startEvent;
    m_startEvent = nullptr;
    if (startEvent != nullptr) {
        ApplyName();
    }
    const NxResult setUp = SetUp();
    if (setUp == NX_ERROR_NULL_POINTER && Unregister()) {
        delete this;
    } else if (setUp != NX_OK) {
        SetThreadId(0);
        m_life.store(ELife::NONE);
    }
    if (setUp != NX_OK) {
        if (startEvent != nullptr) {
            startEvent->m_result = setUp;
            startEvent->Signal();
        }
        return;
    }
    if (startEvent == nullptr) {
        // On a thread of the application's own.
        CallOut("OnThreadRun", [this] { OnThreadRun(); });
        SetThreadId(0);
        return;
    }
    // After the handle and OnCreate: whoever finds the object in the registry may join it now.
    assert(m_life.load() == ELife::STARTING);
    m_life.store(ELife::RUNNING);
    startEvent->Signal();
    RunLoop();
}

void CNxThread::RunLoop() {
    CallOut("OnThreadRun", [this] { OnThreadRun(); });
    // The system will give the id to another thread, which must not be taken for this one.
    SetThreadId(0);
    ELife life = ELife::RUNNING;
    if (m_life.compare_exchange_strong(life, ELife::ENDED)) {
        // The owner may have destroyed the object by now.
        return;
    }
    assert(life == ELife::RUNNING_CLAIMED);
    if (IsJoinable()) {
        m_life.store(ELife::ENDED_CLAIMED);
    } else {
        delete this;
    }
}

void CNxThread::ReportEnd(NxResult result) {
    char text[96];
    std::snprintf(text, sizeof(text), "the loop of thread %d has ended by itself, result %u",
                  m_type, result);
    INxTraceManager::Instance()->TraceString(NX_TRACE_ERROR, text);
    INxObserver* const observer = CNxThreadManager::GetThreadEndObserver();
    if (observer != nullptr) {
        CallOut("OnObserve", [&] { observer->OnObserve("ThreadEnd", this); });
    }
}

// Returns in which state it found the end of the thread to be claimed; NONE when there is nothing
// to claim: no system thread, one that is not up yet, or one whose end is taken care of.
CNxThread::ELife CNxThread::Claim() {
    if (!IsOfThisProcess()) {
        return ELife::NONE;
    }
    ELife life = ELife::RUNNING;
    if (m_life.compare_exchange_strong(life, ELife::RUNNING_CLAIMED)) {
        return ELife::RUNNING;
    }
    const bool ended =
        life == ELife::ENDED && m_life.compare_exchange_strong(life, ELife::ENDED_CLAIMED);
    return ended ? ELife::ENDED : ELife::NONE;
}

bool CNxThread::IsRunning() const {
    const ELife life = m_life.load(std::memory_order_acquire);
    const bool isUp =
        life == ELife::STARTING || life == ELife::RUNNING || life == ELife::RUNNING_CLAIMED;
    return isUp && IsOfThisProcess();
}

// A child of fork(2) has the object, but not the thread.
bool CNxThread::IsOfThisProcess() const {
    return m_forks == CNxProcessWide::CountForks();
}

void CNxThread::BindToCallingThread() {
    SetThreadId(CNxThreadManager::GetThreadSelfId());
    if (INxEventQueue* const events = GetEventQueue()) {
        events->Reset2CurrentThread();
    }
    if (INxTimerQueue* const timers = GetTimerQueue()) {
        timers->Reset2CurrentThread();
    }
    if (INxReactor* const reactor = GetReactor()) {
        reactor->Reset2CurrentThread();
    }
}

NxResult CNxThread::StopForCertain(CNxTimeValue* timeout) {
    const NxResult stopped = Stop(timeout);
    INxReactor* const reactor = GetReactor();
    if (stopped != NX_ERROR_FAILURE || reactor == nullptr) {
        return stopped;
    }
    // From inside.
    return NxPostCall(*reactor, [reactor] { return reactor->StopEventLoop(); });
}

NxResult CNxThread::Stop(CNxTimeValue* /*timeout*/) {
    return NX_ERROR_NOT_IMPLEMENTED;
}

NxResult CNxThread::Join() {
    if (CNxThreadManager::IsEqualCurrentThread(GetThreadId())) {
        return NX_ERROR_FAILURE;
    }
    if (!IsJoinable() || Claim() == ELife::NONE) {
        return NX_ERROR_FAILURE;
    }
    return ResultOfError(pthread_join(m_threadHandle, nullptr));
}

// The system's own timed join goes by the wall clock.
NxResult CNxThread::JoinUntil(const CNxTimeValue& deadline) {
    while (IsJoinable() && IsRunning()) {
        if (deadline <= CNxTimeValue::GetMonotonicTime()) {
            return NX_ERROR_TIMEOUT;
        }
        cnx_sleep_ms(c_pollMs);
    }
    return Join();
}

NxResult CNxThread::Destory(long /*reason*/) {
    assert(m_life.load() != ELife::STARTING || !IsOfThisProcess());
    // A detached thread deletes the object at its end.
    if (Unregister() && (IsJoinable() || Claim() != ELife::RUNNING)) {
        delete this;
    }
    return NX_OK;
}

// False when the tear-down has the object: it is not to be deleted then.
bool CNxThread::Unregister() {
    if (m_registered.exchange(0) == 0) {
        return true;
    }
    // Not there when the manager was made anew meanwhile.
    const bool isFree =
        CNxThreadManager::Instance()->UnregisterThread(this) != NX_ERROR_NOT_AVAILABLE;
    m_registered.store(isFree ? 0 : 1);
    return isFree;
}

CNxThread::~CNxThread() {
    // Refused only to who deletes it without Destory.
    static_cast<void>(Unregister());
    if (IsJoinable() && Claim() != ELife::NONE) {
        // Never joined: let the system reclaim it when it ends.
        pthread_detach(m_threadHandle);
    }
}
