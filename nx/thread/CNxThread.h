// The thread object: a system thread, or another thread's stand-in, that owns a loop and the queues
// that feed it.
#pragma once

#include <atomic>

#include <nx/foundation/CNxEventThread.h>
#include <nx/foundation/CNxString.h>
#include <nx/foundation/NxResult.h>
#include <nx/thread/CNxThreadManager.h>

class CNxTimeValue;
class INxEventQueue;
class INxReactor;
class INxTimerQueue;

// Base of every kind of thread. Made with new; from Create on it stands in the thread manager's
// registry under its type. The life of a joinable one: Create, Stop, Join, Destory. A detached one
// is deleted by whichever comes second, the end of its run or Destory.
//
// Create, Join and Destory belong to the thread that made the object; the other operations may be
// called on any thread.
class CNxThread {
public:
    CNxThread() = default;
    CNxThread(const CNxThread&) = delete;
    CNxThread& operator=(const CNxThread&) = delete;

    // Registers the thread under `type` and starts it; returns when it has run OnThreadInit, so
    // its queues are there. Type NX_THREAD_MAIN starts nothing: the object takes the identity of
    // the calling thread, which runs OnThreadInit and OnThreadRun itself.
    // NX_OK; NX_ERROR_INVALID_ARG for type -1; NX_ERROR_ALREADY_INITIALIZED on a second call;
    // NX_ERROR_FAILURE when the type is taken or there is no memory; NX_ERROR_UNEXPECTED when the
    // system starts no thread (the object stays registered). In all these cases the object is still
    // the caller's.
    // NX_ERROR_NULL_POINTER when OnCreate refused: the object has deleted itself and is gone.
    [[nodiscard]] virtual NxResult Create(int type, CNxThreadManager::TFlag flags);

    // Registers the thread under `type` with the identity of the calling thread and starts
    // nothing. Results as Create, without the last two.
    [[nodiscard]] virtual NxResult CreateNotRun(int type, CNxThreadManager::TFlag flags);

    // Asks the thread to end its run. NX_ERROR_NOT_IMPLEMENTED unless a subclass can.
    virtual NxResult Stop(CNxTimeValue* timeout);

    // Called on the new thread before anything else; another result than NX_OK ends the thread and
    // deletes the object.
    [[nodiscard]] virtual NxResult OnCreate() { return NX_OK; }
    // Called on the new thread before its loop; queues are made here.
    virtual void OnThreadInit() {}

    // The loop. When it returns the thread ends. An exception that leaves it ends the process with
    // a line on stderr that names it.
    virtual void OnThreadRun() = 0;

    // What feeds the thread; null for what it does not have. Owned by the thread.
    virtual INxReactor* GetReactor() { return nullptr; }
    virtual INxEventQueue* GetEventQueue() { return nullptr; }
    virtual INxTimerQueue* GetTimerQueue() { return nullptr; }

    // Takes the object out of the registry and deletes it; a detached thread that still runs
    // deletes it at the end of its run. A joinable thread must have been joined. While exit() waits
    // for threads the object stays, and is left to it. `reason` is for the reader of the call.
    // NX_OK.
    NxResult Destory(long reason);

    // Waits until the thread has ended. NX_OK; NX_ERROR_FAILURE when called on the thread itself,
    // when there is nothing to join (never started, detached, joined before, started by a parent
    // of this process), or when the system refuses.
    NxResult Join();

    // The id is that of pthread_self(3) on the thread; 0 before it has one, and again when its run
    // has ended, for the system then gives the id to another thread. The handle stays.
    unsigned long GetThreadId() const { return m_threadId.load(std::memory_order_acquire); }
    void SetThreadId(unsigned long id) { m_threadId.store(id, std::memory_order_release); }
    int GetThreadType() const { return m_type; }
    unsigned long GetThreadHandle() const { return m_threadHandle; }

    // Whether the library runs a system thread for this object at the moment. Never in a forked
    // child for a thread of its parent's.
    bool IsRunning() const;

    // The processors that the thread may run on, as numbers with commas between them ("1,3"); empty
    // for all. Taken over when the thread starts; numbers from 1024 and what is no number are
    // ignored, a set of which nothing is left changes nothing.
    CNxString GetCPUSet() const { return m_cpuSet; }
    void SetCPUSet(const CNxString& cpuSet) { m_cpuSet = cpuSet; }

    // What ps -T, gdb and /proc show: 15 bytes, the rest is cut. Without a name of its own
    // a thread that the library starts is called by its type: "nx-network", "nx-timer",
    // "nx-reactor-4097" with a reactor and "nx-task-4097" without one. A thread that was there
    // before, such as the main thread, keeps the name it had.
    // SetName counts from the thread's start on; called on the thread itself, at once. Not while
    // others call GetName.
    CNxString GetName() const { return m_name.empty() ? GetDefaultName() : m_name; }
    void SetName(const CNxString& name);

    // The body of the system thread; `object` is the CNxThread, null ends at once.
    static void* ThreadProc(void* object);

    virtual ~CNxThread();

    // What follows is for the thread manager.

    // Gives the calling thread the object's name.
    void ApplyName();

    // How a thread comes to its end at the latest when the process exits.
    enum class EEnd {
        BY_STOP,          // Stop makes its loop end
        BY_APPLICATION,   // the application runs it, and does so no more
        WITH_ANOTHER,     // it stands for another thread, and has no loop
        AFTER_ALL_OTHERS  // the manager ends it when no other runs any more
    };
    virtual EEnd GetEnd() const { return EEnd::BY_STOP; }

    // As Join. NX_ERROR_TIMEOUT when the thread has not ended at that point of the monotonic clock.
    NxResult JoinUntil(const CNxTimeValue& deadline);

    // Stop; a reactor that its StopEventLoop does not reach is told by an event.
    NxResult StopForCertain(CNxTimeValue* timeout);

    // Makes the calling thread the one that the object stands for and whose queues it has, while
    // nobody runs its loop. A kind with a CNxStopFlag, which it does not reach, overrides it.
    virtual void BindToCallingThread();

protected:
    // For kinds whose loop has ended by itself, on the thread: traces that and tells the observer
    // (CNxThreadManager::SetThreadEndObserver).
    void ReportEnd(NxResult result);

    // For kinds that take their identity from elsewhere instead of Create.
    NxResult RegisterAs(int type, unsigned long id, unsigned long handle);

private:
    class CStartEvent;

    // The life of the system thread. "Claimed" says that its end is taken care of: a joinable
    // thread has its one joiner, a detached one deletes its object itself.
    //
    //     NONE <--> STARTING --> RUNNING --------> ENDED
    //                               |                |
    //                               v                v
    //                        RUNNING_CLAIMED --> ENDED_CLAIMED
    enum class ELife { NONE, STARTING, RUNNING, RUNNING_CLAIMED, ENDED, ENDED_CLAIMED };

    CNxString GetDefaultName() const;
    NxResult PrepareCreate(int type, CNxThreadManager::TFlag flags);
    NxResult StartSystemThread();
    NxResult SetUp();
    void Run();
    void RunLoop();
    ELife Claim();
    [[nodiscard]] bool Unregister();
    bool IsOfThisProcess() const;
    bool IsJoinable() const { return (m_flags & CNxThreadManager::FLAG_JOINABLE) != 0; }

    std::atomic<unsigned long> m_threadId{0};
    unsigned long m_threadHandle = 0;
    int m_type = -1;
    CNxThreadManager::TFlag m_flags = CNxThreadManager::FLAG_NONE;
    std::atomic<int> m_registered{0};
    CNxString m_cpuSet;
    CNxString m_name;
    std::atomic<ELife> m_life{ELife::NONE};
    // The process that has the system thread (CNxProcessWide::CountForks).
    unsigned int m_forks = 0;
    // While STARTING; on the stack of the thread that is in Create.
    CStartEvent* m_startEvent = nullptr;
};
