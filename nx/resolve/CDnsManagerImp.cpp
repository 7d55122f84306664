#include <nx/foundation/INxObserver.h>
#include <nx/resolve/CDnsManagerImp.h>
#include <nx/resolve/CDnsThread.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cassert>
#include <new>

namespace {

constexpr const char* c_topic = "DnsManager";
constexpr long c_longestExpiredSeconds = 3600;
constexpr long c_numericSeconds = 3600;
constexpr size_t c_mostWaiting = 65536;
constexpr size_t c_longestName = 253;
constexpr size_t c_longestLabel = 63;
constexpr unsigned short c_dnsPort = 53;

std::atomic<CDnsManagerImp*> s_instance{nullptr};

// `host` itself where that is in lower case already, else `lowered`.
const CNxString& ToKey(const CNxString& host, CNxString& lowered) {
    const auto isUpper = [](char c) { return c >= 'A' && c <= 'Z'; };
    const std::string& text = host.GetRawData();
    if (std::none_of(text.begin(), text.end(), isUpper)) {
        return host;
    }
    lowered = host;
    for (char& c : lowered.GetRawData()) {
        c = isUpper(c) ? static_cast<char>(c - 'A' + 'a') : c;
    }
    return lowered;
}

bool IsHostName(const CNxString& name) {
    const size_t length = name.size() - (!name.empty() && name.back() == '.' ? 1 : 0);
    size_t label = 0;
    for (size_t i = 0; i < length; ++i) {
        const char c = name[i];
        const bool isDot = c == '.';
        const bool isAllowed = (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
                               c == '_' || (isDot && label > 0);
        label = isDot ? 0 : label + 1;
        if (!isAllowed || label > c_longestLabel) {
            return false;
        }
    }
    return label > 0 && length <= c_longestName;
}

INxEventQueue* FindQueue(CNxThread* thread) {
    return thread != nullptr ? thread->GetEventQueue()
                             : CNxThreadManager::Instance()->GetThreadEventQueue(NX_THREAD_CALLING);
}

NxResult Give(CNxDnsRecord*& record, CNxDnsRecord& found) {
    if (found.GetResult() == NX_OK) {
        found.AddReference();
        record = &found;
    }
    return found.GetResult();
}

}  // namespace

// One asker, and the event that brings it the answer. What is not constant is guarded by the
// manager's mutex.
class CDnsAsk final : public INxEvent, public CNxReferenceControlT<CNxMutexThread> {
public:
    CDnsAsk(CDnsManagerImp* manager, INxEventQueue& queue) : m_manager(manager), m_queue(queue) {}

    NxResult OnEventFire() override {
        m_manager->Tell(*this);
        return NX_OK;
    }
    void OnDestorySelf() override { ReleaseReference(); }

    const CNxAutoPtr<CDnsManagerImp> m_manager;
    INxEventQueue& m_queue;
    CNxAutoPtr<CNxDnsRecord> m_record;
    // Where it stands among all that are to be told; nowhere once it was told or cancelled.
    bool m_isListed = false;
    CDnsManagerImp::Asks::iterator m_place;
};

// With the list it needs the class above.
struct CDnsManagerImp::CPending {
    explicit CPending(const CNxString& name) : m_lookup(name) {}

    CDnsLookup m_lookup;
    std::list<CNxAutoPtr<CDnsAsk>> m_asks;
};

CDnsManagerImp::CDnsManagerImp(int threadType) : m_threadType(threadType) {
    // First, so that a fork takes this mutex before those of the thread manager.
    CNxThreadManager::Instance();
    [[maybe_unused]] static const int s_forkNotice =
        pthread_atfork(&CDnsManagerImp::BeforeFork, &CDnsManagerImp::AfterForkInParent,
                       &CDnsManagerImp::AfterForkInChild);
    s_instance.store(this);
}

void CDnsManagerImp::End() {
    CDnsThread* thread = nullptr;
    {
        CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
        thread = m_thread;
    }
    // Mostly it has ended by now; not when the process exits on another thread than the main one.
    if (thread != nullptr) {
        static_cast<void>(thread->StopForCertain(nullptr));
        thread->Join();
    }
    s_instance.store(nullptr);
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    ForgetAll_l();
}

NxResult CDnsManagerImp::AsyncResolve(CNxDnsRecord*& record, const CNxString& host,
                                      INxObserver* observer, int allowExpired, CNxThread* thread) {
    record = nullptr;
    try {
        CNxString lowered;
        const CNxString& name = ToKey(host, lowered);
        CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
        return Resolve_l(record, name, observer, allowExpired != 0, thread);
    } catch (const std::bad_alloc&) {
        return NX_ERROR_FAILURE;
    }
}

NxResult CDnsManagerImp::Resolve_l(CNxDnsRecord*& record, const CNxString& name,
                                   INxObserver* observer, bool allowExpired, CNxThread* thread) {
    CNxDnsRecord* const cached = Find_l(name);
    if (cached == nullptr) {
        CNxInetAddr numeric;
        if (numeric.SetNumeric(name, 0) == NX_OK) {
            const Record made(new CNxDnsRecord(name));
            made->Complete(NX_OK, {numeric}, c_numericSeconds);
            return Give(record, *made);
        }
        return Ask_l(name, observer, thread);
    }
    const CNxTimeValue now = CNxTimeValue::GetMonotonicTime();
    if (cached->GetExpireTime() > now) {
        return Give(record, *cached);
    }
    const CNxTimeValue goodUntil = cached->GetExpireTime() + CNxTimeValue(c_longestExpiredSeconds);
    if (allowExpired && cached->GetResult() == NX_OK && goodUntil > now) {
        // Whether it can be looked up anew or not.
        static_cast<void>(Ask_l(name, nullptr, nullptr));
        return Give(record, *cached);
    }
    return Ask_l(name, observer, thread);
}

// What is remembered, expired or not; null for nothing. It is the last used now.
CNxDnsRecord* CDnsManagerImp::Find_l(const CNxString& name) {
    const auto found = m_cache.find(name);
    if (found == m_cache.end()) {
        return nullptr;
    }
    m_recency.splice(m_recency.begin(), m_recency, found->second.m_recency);
    return found->second.m_record.Get();
}

NxResult CDnsManagerImp::Ask_l(const CNxString& name, INxObserver* observer, CNxThread* thread) {
    if (!IsHostName(name)) {
        return NX_ERROR_NOT_AVAILABLE;
    }
    INxEventQueue* const queue = observer != nullptr ? FindQueue(thread) : nullptr;
    if (observer != nullptr && queue == nullptr) {
        return NX_ERROR_NULL_POINTER;
    }
    CPending* pending = nullptr;
    const NxResult started = Start_l(name, pending);
    if (started != NX_OK) {
        return started;
    }
    if (observer != nullptr) {
        AddAsk_l(*pending, observer, *queue);
    }
    return NX_ERROR_WOULD_BLOCK;
}

NxResult CDnsManagerImp::Start_l(const CNxString& name, CPending*& pending) {
    const NxResult running = StartThread_l();
    if (running != NX_OK) {
        return running;
    }
    const auto found = m_pending.find(name);
    if (found != m_pending.end()) {
        pending = &found->second;
        return NX_OK;
    }
    if (m_pending.size() >= c_mostWaiting) {
        return NX_ERROR_FAILURE;
    }
    std::list<CDnsLookup*> toStart{nullptr};
    const auto at = m_pending.try_emplace(name, name).first;
    pending = &at->second;
    toStart.front() = &pending->m_lookup;
    // It looks until nothing is left.
    const NxResult woken = m_toStart.empty() ? m_thread->Wake() : NX_OK;
    if (woken != NX_OK) {
        m_pending.erase(at);
        // A thread that is ending refuses before it tells OnThreadEnd.
        return woken == NX_ERROR_NOT_INITIALIZED ? woken : NX_ERROR_FAILURE;
    }
    m_toStart.splice(m_toStart.end(), toStart);
    return NX_OK;
}

NxResult CDnsManagerImp::StartThread_l() {
    if (m_state != EThread::NOT_STARTED) {
        return m_state == EThread::RUNNING ? NX_OK : NX_ERROR_NOT_INITIALIZED;
    }
    auto thread = std::make_unique<CDnsThread>(static_cast<IWork&>(*this));
    if (thread->Create(m_threadType, CNxThreadManager::FLAG_JOINABLE) != NX_OK) {
        return NX_ERROR_FAILURE;
    }
    m_thread = thread.release();
    m_state = EThread::RUNNING;
    return NX_OK;
}

// May throw std::bad_alloc, with nothing changed.
void CDnsManagerImp::AddAsk_l(CPending& pending, INxObserver* observer, INxEventQueue& queue) {
    const CNxAutoPtr<CDnsAsk> ask(new CDnsAsk(this, queue));
    std::list<CNxAutoPtr<CDnsAsk>> asks{ask};
    ask->m_place = m_asks.emplace(observer, ask);
    ask->m_isListed = true;
    pending.m_asks.splice(pending.m_asks.end(), asks);
}

void CDnsManagerImp::Forget_l(CDnsAsk& ask) {
    if (ask.m_isListed) {
        ask.m_isListed = false;
        // The last reference may be that one.
        const CNxAutoPtr<CDnsAsk> kept(&ask);
        m_asks.erase(ask.m_place);
    }
}

void CDnsManagerImp::ForgetAll_l() {
    for (const auto& ask : m_asks) {
        ask.second->m_isListed = false;
    }
    m_asks.clear();
}

NxResult CDnsManagerImp::CancelResolve(INxObserver* observer) {
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    const auto [begin, end] = m_asks.equal_range(observer);
    if (begin == end) {
        return NX_ERROR_NOT_FOUND;
    }
    std::for_each(begin, end, [](const auto& ask) { ask.second->m_isListed = false; });
    m_asks.erase(begin, end);
    return NX_OK;
}

NxResult CDnsManagerImp::RefreshHost(const CNxString& host) {
    try {
        CNxString lowered;
        const CNxString& name = ToKey(host, lowered);
        CNxInetAddr numeric;
        if (numeric.SetNumeric(name, 0) == NX_OK) {
            return NX_OK;
        }
        CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
        return Ask_l(name, nullptr, nullptr);
    } catch (const std::bad_alloc&) {
        return NX_ERROR_FAILURE;
    }
}

NxResult CDnsManagerImp::SetServers(const CNxString& servers) {
    std::vector<CNxInetAddr> parsed;
    for (size_t begin = 0; begin <= servers.size() && !servers.empty();) {
        const size_t end = std::min(servers.find(',', begin), servers.size());
        CNxInetAddr server;
        const NxResult result = server.SetNumeric(servers.substr(begin, end - begin));
        const auto* const v6 = reinterpret_cast<const sockaddr_in6*>(server.GetPtr());
        if (result != NX_OK || (server.GetType() == AF_INET6 && v6->sin6_scope_id != 0)) {
            return NX_ERROR_INVALID_ARG;
        }
        if (server.GetPort() == 0) {
            static_cast<void>(server.SetPort(c_dnsPort));  // it has one of the two types
        }
        parsed.push_back(server);
        begin = end + 1;
    }
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    m_settings.m_servers.swap(parsed);
    ++m_settingsNumber;
    return NX_OK;
}

NxResult CDnsManagerImp::SetTimeout(const CNxTimeValue& timeout, int tries) {
    if (CNxTimeValue(0, 1000) > timeout || timeout > CNxTimeValue(60) || tries < 1 || tries > 10) {
        return NX_ERROR_INVALID_ARG;
    }
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    m_settings.m_timeoutMs = static_cast<int>(timeout.GetTotalInMsec());
    m_settings.m_tries = tries;
    ++m_settingsNumber;
    return NX_OK;
}

void CDnsManagerImp::SetCacheSize(size_t records) {
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    m_cacheSize = records;
    Evict_l();
}

void CDnsManagerImp::Evict_l() {
    assert(m_recency.size() == m_cache.size());
    while (m_cache.size() > m_cacheSize) {
        const auto last = m_cache.find(*m_recency.back());
        m_recency.pop_back();
        m_cache.erase(last);
    }
}

// Without memory it is not remembered.
void CDnsManagerImp::Cache_l(const Record& record) {
    try {
        Recency recency{nullptr};
        const auto [at, isNew] = m_cache.try_emplace(record->GetHostName());
        CCached& cached = at->second;
        if (isNew) {
            recency.front() = &at->first;
            cached.m_recency = recency.begin();
            m_recency.splice(m_recency.begin(), recency);
        } else if (record->GetResult() != NX_OK &&
                   cached.m_record->GetExpireTime() > record->GetResolveTime()) {
            return;
        }
        cached.m_record = record;
        Evict_l();
    } catch (const std::bad_alloc&) {
    }
}

void CDnsManagerImp::Publish(const CDnsLookup& lookup) {
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    Publish_l(lookup);
}

void CDnsManagerImp::Publish_l(const CDnsLookup& lookup) {
    const Record record(lookup.GetRecord());
    const auto at = m_pending.find(record->GetHostName());
    assert(at != m_pending.end() && &at->second.m_lookup == &lookup);
    Cache_l(record);
    for (const CNxAutoPtr<CDnsAsk>& ask : at->second.m_asks) {
        ask->m_record = record;
    }
    m_untold.splice(m_untold.end(), at->second.m_asks);
    m_pending.erase(at);
    PostUntold_l();
}

void CDnsManagerImp::PostUntold_l() {
    // The analysis does not see that this runs within the call.
    m_untold.remove_if([this](const CNxAutoPtr<CDnsAsk>& ask) NX_NO_THREAD_SAFETY_ANALYSIS {
        return !ask->m_isListed || Post_l(*ask);
    });
}

// False without memory; it is to be tried again then.
bool CDnsManagerImp::Post_l(CDnsAsk& ask) {
    // The queue's, which it releases in any case.
    ask.AddReference();
    const NxResult posted = ask.m_queue.PostEvent(&ask);
    if (posted == NX_ERROR_NOT_INITIALIZED) {
        // The thread has ended: nobody is left to be told.
        Forget_l(ask);
    }
    return posted != NX_ERROR_FAILURE;
}

void CDnsManagerImp::Tell(CDnsAsk& ask) {
    INxObserver* observer = nullptr;
    {
        CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
        if (ask.m_isListed) {
            observer = ask.m_place->first;
            Forget_l(ask);
        }
    }
    if (observer != nullptr) {
        observer->OnObserve(c_topic, ask.m_record.Get());
    }
}

CDnsLookup* CDnsManagerImp::TakeToStart() {
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    if (m_toStart.empty()) {
        return nullptr;
    }
    CDnsLookup* const lookup = m_toStart.front();
    m_toStart.pop_front();
    return lookup;
}

bool CDnsManagerImp::HasToStart() {
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    return !m_toStart.empty();
}

unsigned int CDnsManagerImp::GetSettings(CDnsSettings& settings) {
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    settings = m_settings;
    return m_settingsNumber;
}

bool CDnsManagerImp::TellUntold() {
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    PostUntold_l();
    return !m_untold.empty();
}

void CDnsManagerImp::OnThreadEnd() {
    CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    m_state = EThread::ENDED;
    assert(m_toStart.size() == m_pending.size());
    for (CDnsLookup* const lookup : m_toStart) {
        lookup->Complete(NX_ERROR_FAILURE, {}, 0);
        Publish_l(*lookup);
    }
    m_toStart.clear();
    m_untold.clear();
}

// The bodies hand the mutex over to each other, where the analysis does not look.
void CDnsManagerImp::BeforeFork() NX_NO_THREAD_SAFETY_ANALYSIS {
    CDnsManagerImp* const manager = s_instance.load();
    if (manager != nullptr) {
        manager->m_mutex.Lock();
    }
}

void CDnsManagerImp::AfterForkInParent() NX_NO_THREAD_SAFETY_ANALYSIS {
    CDnsManagerImp* const manager = s_instance.load();
    if (manager != nullptr) {
        manager->m_mutex.UnLock();
    }
}

// The thread, and with it what is under way, is the parent's.
void CDnsManagerImp::AfterForkInChild() NX_NO_THREAD_SAFETY_ANALYSIS {
    CDnsManagerImp* const manager = s_instance.load();
    if (manager != nullptr) {
        manager->m_state = EThread::NOT_STARTED;
        manager->m_thread = nullptr;
        manager->m_toStart.clear();
        manager->m_pending.clear();
        manager->m_untold.clear();
        manager->ForgetAll_l();
        manager->m_mutex.UnLock();
    }
}
