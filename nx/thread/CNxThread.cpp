#include <nx/thread/CNxThread.h>
#include <pthread.h>
#include <sched.h>

#include <cstdlib>

// How the new thread tells the one in Create that it is up, or that it is not going to be.
class CNxThread::CStartEvent : public CNxEventThread {
public:
    NxResult m_result = NX_OK;
};

namespace {

constexpr unsigned long c_maxProcessors = 1024;

std::atomic<int> s_systemThreads{0};

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
    CStartEvent startEvent;
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0) {
        return NX_ERROR_UNEXPECTED;
    }
    const bool detached = IsDetached();
    pthread_attr_setdetachstate(&attributes,
                                detached ? PTHREAD_CREATE_DETACHED : PTHREAD_CREATE_JOINABLE);
    m_startEvent = &startEvent;
    m_started = true;
    m_running.store(1);
    s_systemThreads.fetch_add(1);
    pthread_t handle{};
    const int error = pthread_create(&handle, &attributes, &CNxThread::ThreadProc, this);
    pthread_attr_destroy(&attributes);
    if (error != 0) {
        m_startEvent = nullptr;
        m_started = false;
        m_running.store(0);
        s_systemThreads.fetch_sub(1);
        return NX_ERROR_UNEXPECTED;
    }
    // From here on the object may delete itself: only locals are touched.
    startEvent.Wait(nullptr);
    if (startEvent.m_result != NX_OK && !detached) {
        pthread_join(handle, nullptr);
    }
    return startEvent.m_result;
}

void* CNxThread::ThreadProc(void* object) {
    auto* const thread = static_cast<CNxThread*>(object);
    if (thread != nullptr) {
        const int counted = thread->m_started ? 1 : 0;
        thread->Run();
        s_systemThreads.fetch_sub(counted);
    }
    return nullptr;
}

void CNxThread::Run() {
    SetThreadId(CNxThreadManager::GetThreadSelfId());
    m_threadHandle = GetThreadId();
    ApplyCpuSet(m_cpuSet);
    CStartEvent* const startEvent = m_startEvent;
    m_startEvent = nullptr;
    if (OnCreate() != NX_OK) {
        delete this;
        startEvent->m_result = NX_ERROR_NULL_POINTER;
        startEvent->Signal();
        return;
    }
    OnThreadInit();
    // Behind the handle and OnCreate: whoever finds the object in the registry may join it now.
    m_toJoin.store(m_started && !IsDetached() ? 1 : 0);
    if (m_type != NX_THREAD_MAIN && startEvent != nullptr) {
        startEvent->Signal();
    }
    OnThreadRun();
    EndRun();
}

void CNxThread::EndRun() {
    const bool joinable = IsJoinable();
    // The system will give the id to another thread, which must not be taken for this one.
    SetThreadId(0);
    // Behind this a joinable object may be destroyed by its owner.
    m_running.store(0, std::memory_order_release);
    if (!joinable && m_endCounter.fetch_add(1) + 1 > 1) {
        delete this;
    }
}

bool CNxThread::DoesAnyRun() {
    return s_systemThreads.load() != 0;
}

NxResult CNxThread::Stop(CNxTimeValue* /*timeout*/) {
    return NX_ERROR_NOT_IMPLEMENTED;
}

NxResult CNxThread::Join() {
    if (CNxThreadManager::IsEqualCurrentThread(GetThreadId())) {
        return NX_ERROR_FAILURE;
    }
    if (m_toJoin.exchange(0) == 0) {
        return NX_ERROR_FAILURE;
    }
    return pthread_join(m_threadHandle, nullptr) == 0 ? NX_OK : NX_ERROR_FAILURE;
}

NxResult CNxThread::Destory(long /*reason*/) {
    Unregister();
    if (m_started && !IsJoinable() && m_endCounter.fetch_add(1) + 1 < 2) {
        return NX_OK;
    }
    delete this;
    return NX_OK;
}

void CNxThread::Unregister() {
    if (m_registered.exchange(0) != 0) {
        CNxThreadManager::Instance()->UnregisterThread(this);
    }
}

CNxThread::~CNxThread() {
    Unregister();
    if (m_toJoin.exchange(0) != 0) {
        // Never joined: let the system reclaim it when it ends.
        pthread_detach(m_threadHandle);
    }
}
