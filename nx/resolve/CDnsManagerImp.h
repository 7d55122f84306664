// Inside the library only: what CNxDnsManager does.
#pragma once

#include <list>
#include <unordered_map>

#include <nx/foundation/CNxAutoPtr.h>
#include <nx/foundation/CNxMutexThread.h>
#include <nx/foundation/CNxReferenceControl.h>
#include <nx/foundation/CNxString.h>
#include <nx/foundation/NxResult.h>
#include <nx/resolve/CDnsThread.h>
#include <nx/resolve/CNxDnsRecord.h>

class CDnsAsk;
class INxEventQueue;
class INxObserver;

// Counted, because the events that tell observers use it: one may wait on a thread that runs on
// while the process exits.
class CDnsManagerImp final : public CNxReferenceControlT<CNxMutexThread>,
                             private CDnsThread::IWork {
public:
    explicit CDnsManagerImp(int threadType);
    CDnsManagerImp(const CDnsManagerImp&) = delete;
    CDnsManagerImp& operator=(const CDnsManagerImp&) = delete;

    // For the tear-down: ends the resolver thread and tells nobody any more.
    void End();

    [[nodiscard]] NxResult AsyncResolve(CNxDnsRecord*& record, const CNxString& host,
                                        INxObserver* observer, int allowExpired, CNxThread* thread);
    NxResult CancelResolve(INxObserver* observer);
    NxResult RefreshHost(const CNxString& host);
    [[nodiscard]] NxResult SetServers(const CNxString& servers);
    [[nodiscard]] NxResult SetTimeout(const CNxTimeValue& timeout, int tries);
    void SetCacheSize(size_t records);

private:
    friend class CDnsAsk;

    using Record = CNxAutoPtr<CNxDnsRecord>;
    using Recency = std::list<const CNxString*>;
    struct CCached {
        Record m_record;
        Recency::iterator m_recency;
    };
    // A look-up that is under way, and who waits for it.
    struct CPending;
    using Asks = std::unordered_multimap<INxObserver*, CNxAutoPtr<CDnsAsk>>;
    enum class EThread { NOT_STARTED, RUNNING, ENDED };

    NxResult Resolve_l(CNxDnsRecord*& record, const CNxString& name, INxObserver* observer,
                       bool allowExpired, CNxThread* thread) NX_REQUIRES(m_mutex);
    CNxDnsRecord* Find_l(const CNxString& name) NX_REQUIRES(m_mutex);
    NxResult Ask_l(const CNxString& name, INxObserver* observer, CNxThread* thread)
        NX_REQUIRES(m_mutex);
    NxResult Start_l(const CNxString& name, CPending*& pending) NX_REQUIRES(m_mutex);
    NxResult StartThread_l() NX_REQUIRES(m_mutex);
    void AddAsk_l(CPending& pending, INxObserver* observer, INxEventQueue& queue)
        NX_REQUIRES(m_mutex);
    void Forget_l(CDnsAsk& ask) NX_REQUIRES(m_mutex);
    void ForgetAll_l() NX_REQUIRES(m_mutex);
    void Publish_l(const CDnsLookup& lookup) NX_REQUIRES(m_mutex);
    void Cache_l(const Record& record) NX_REQUIRES(m_mutex);
    void Evict_l() NX_REQUIRES(m_mutex);
    bool Post_l(CDnsAsk& ask) NX_REQUIRES(m_mutex);
    void PostUntold_l() NX_REQUIRES(m_mutex);

    // For the events that tell observers.
    void Tell(CDnsAsk& ask);

    CDnsLookup* TakeToStart() override;
    bool HasToStart() override;
    unsigned int GetSettings(CDnsSettings& settings) override;
    void Publish(const CDnsLookup& lookup) override;
    bool TellUntold() override;
    void OnThreadEnd() override;

    static void BeforeFork();
    static void AfterForkInParent();
    static void AfterForkInChild();

    const int m_threadType;
    CNxMutexThread m_mutex;
    EThread m_state NX_GUARDED_BY(m_mutex) = EThread::NOT_STARTED;
    // Owned by the thread manager's registry.
    CDnsThread* m_thread NX_GUARDED_BY(m_mutex) = nullptr;
    CDnsSettings m_settings NX_GUARDED_BY(m_mutex);
    unsigned int m_settingsNumber NX_GUARDED_BY(m_mutex) = 0;

    std::unordered_map<CNxString, CCached, CNxStringHash> m_cache NX_GUARDED_BY(m_mutex);
    Recency m_recency NX_GUARDED_BY(m_mutex);  // the last used first
    size_t m_cacheSize NX_GUARDED_BY(m_mutex) = 4096;

    std::unordered_map<CNxString, CPending, CNxStringHash> m_pending NX_GUARDED_BY(m_mutex);
    std::list<CDnsLookup*> m_toStart NX_GUARDED_BY(m_mutex);
    // All who are to be told, by observer; of these, who has an answer, but no event.
    Asks m_asks NX_GUARDED_BY(m_mutex);
    std::list<CNxAutoPtr<CDnsAsk>> m_untold NX_GUARDED_BY(m_mutex);
};
