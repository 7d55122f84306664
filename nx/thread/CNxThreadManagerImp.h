// Inside the library only: the thread manager's implementation. Programs use CNxThreadManager.
#pragma once

#include <atomic>
#include <vector>

#include <nx/foundation/CNxMutexThread.h>
#include <nx/foundation/CNxProcessWide.h>
#include <nx/thread/CNxThreadManager.h>

class CNxThreadManagerImp : public CNxThreadManager {
public:
    CNxThreadManagerImp();

    // The tear-down that CNxThreadManager describes.
    ~CNxThreadManagerImp() override;

    [[nodiscard]] NxResult InitMainThread(int argc, char** argv) override;
    [[nodiscard]] NxResult MainThreadDetachRun(CNxThread* thread) override;
    CNxThread* GetThread(int type) override;
    INxReactor* GetThreadReactor(int type) override;
    INxEventQueue* GetThreadEventQueue(int type) override;
    INxTimerQueue* GetThreadTimerQueue(int type) override;
    [[nodiscard]] NxResult CreateUserTaskThread(CNxThread*& out, TFlag flags,
                                                int withTimerQueue) override;
    int GetAndIncreamUserType() override;
    NxResult DisableSignal(int signo) override;
    [[nodiscard]] NxResult CreateNetworkThread(int type, INxReactor* reactor,
                                               CNxThread*& out) override;
    [[nodiscard]] NxResult CreateReactorThread(int type, INxReactor* reactor,
                                               CNxThread*& out) override;
    NxResult StopAllThreads(CNxTimeValue* timeout) override;
    NxResult JoinAllThreads() override;
    [[nodiscard]] NxResult RegisterThread(CNxThread* thread) override;
    NxResult UnregisterThread(CNxThread* thread) override;
    NxResult GetSingletonMutex(CNxMutexThreadRecursive*& mutex) override;
    NxResult GetReferenceControlMutex(CNxMutexThread*& mutex) override;

    // Blocks SIGRTMIN and SIGIO in the calling thread. NX_OK or NX_ERROR_UNEXPECTED.
    NxResult BlockSignal();

    // A processor for each of five kinds of thread that a server may want to keep apart, for
    // CNxThread::SetCPUSet; -1 without a plan (one processor), and for an index outside 0..4.
    static constexpr int c_plannedCpus = 5;
    int GetPlannedCpu(int index) const;

    // Stops and joins what can be and destroys the clean-up objects and the threads. False when a
    // thread is left running, which may then still use the manager.
    bool TearDown();

    // Around a fork: the child's registry has what stands for the thread that forked, and nothing
    // else of the parent.
    void BeforeFork();
    void AfterForkInParent();
    void AfterForkInChild();

private:
    struct CCpuPlan {
        explicit CCpuPlan(long processors);

        int m_cpus[c_plannedCpus] = {-1, -1, -1, -1, -1};
    };

    CNxThread* GetAfter(long type);
    bool IsUsedByThisProcess();
    bool IsMainOrHasNone();
    std::vector<CNxThread*> TakeThreadsToEnd();
    void LetThreadsGo(std::vector<CNxThread*>& taken);
    CNxThread* TakeFirst();
    bool DestroyThreads();

    std::vector<CNxThread*> m_threads NX_GUARDED_BY(m_registryMutex);
    // Has room for the registry, so that the tear-down allocates nothing.
    std::vector<CNxThread*> m_tearDownCopy NX_GUARDED_BY(m_registryMutex);
    // The tear-down has the registered threads, and waits for them.
    bool m_areEnding NX_GUARDED_BY(m_registryMutex) = false;
    std::vector<CNxThread*> m_ofParent;  // of this process's parent, left as they are
    CNxMutexThread m_registryMutex;
    // The process that was the last to register a thread (CNxProcessWide::CountForks).
    unsigned int m_forks NX_GUARDED_BY(m_registryMutex) = CNxProcessWide::CountForks();
    unsigned int m_lastUserType NX_GUARDED_BY(m_registryMutex) = NX_THREAD_USER - 1;
    // A StopAllThreads has come that no JoinAllThreads has followed yet.
    std::atomic<int> m_stopAsked{0};
    const long m_processors;
    const CCpuPlan m_cpuPlan;
};
