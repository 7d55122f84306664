// The process-wide registry of threads: finds any thread, its event queue, timer queue or reactor
// by the thread's type, makes and ends threads, and owns the start and the tear-down of the
// library.
//
// A server's main():
//     CNxThreadManager* threads = CNxThreadManager::Instance();
//     threads->InitMainThread(argc, argv);
//     CNxThread* network = nullptr;
//     threads->CreateNetworkThread(NX_THREAD_NETWORK, CNxThreadManager::CreateNetworkReactor(),
//                                  network);
//     ... register handlers by sending events to the network thread ...
//     threads->GetThread(NX_THREAD_MAIN)->OnThreadRun();    // until CNxSignalStop or Stop
//     threads->StopAllThreads(nullptr);
//     threads->JoinAllThreads();
#pragma once

#include <nx/foundation/CNxMutexThread.h>
#include <nx/foundation/NxResult.h>

class CNxThread;
class CNxTimeValue;
class INxEventQueue;
class INxObserver;
class INxReactor;
class INxTimerQueue;

// Thread types. Each is registered at most once; 2 and 3 are free for applications.
// The thread that initialised the library.
inline constexpr int NX_THREAD_MAIN = 0;
// The reactor thread that serves the sockets.
inline constexpr int NX_THREAD_NETWORK = 1;
// In look-ups: the registered thread that makes the call.
inline constexpr int NX_THREAD_CALLING = 4;
// Ticks the precise timers.
inline constexpr int NX_THREAD_PRECISE_TIMER = 5;
// The first type that GetAndIncreamUserType() hands out.
inline constexpr int NX_THREAD_USER = 4097;

// One per process, made by the first Instance(), torn down when the process exits.
//
// Tear-down (at exit()): asks every registered thread except the main one to stop, joins them,
// destroys the clean-up objects (CNxCleanUpBase) newest first, then the thread objects. A thread
// that cannot be told to stop is waited for up to a limit (SetTearDownLimit), after which a line on
// stderr says which one it is. That one, detached ones and threads of the application's own are
// left alone. WHILE THE PROCESS HAS ANY OTHER THREAD, all thread objects, their queues and the
// manager stay as well: it may post until the process is gone, and gets NX_ERROR_NOT_INITIALIZED.
// A thread object whose owner destroys it while the tear-down waits for its end stays, too.
// When exit() is called within an event, its sender and those of the events after it get
// NX_ERROR_NOT_AVAILABLE. When exit() runs on a thread other than a registered main thread, no
// thread but that of the precise timers is stopped, and all thread objects stay.
//
// After a fork(2) THE CHILD HAS ONE THREAD, and in its registry only the objects that stand for
// that one; the types of the others are free. It may start threads of its own, and its precise
// timers run on one that is. Pending precise timers of the parent do not fire in it. It must not
// use the queues and reactors of the threads that it has not: nobody drains them there.
// At exit() a child that has registered no thread ends the clean-up objects that it has made
// itself, and nothing else; one that has is torn down like any process, with the objects of the
// thread that forked, but without its parent's other threads and clean-up objects, whose copies are
// left as they are.
//
// Any thread may call any operation. A thread object that a look-up returned is not protected
// against being destroyed meanwhile: whoever destroys threads orders that with their users.
class CNxThreadManager {
public:
    // FLAG_NONE counts as FLAG_JOINABLE.
    enum TFlag { FLAG_NONE = 0, FLAG_JOINABLE = 1, FLAG_DETACHED = 2 };

    virtual ~CNxThreadManager() = default;

    // Makes the calling thread the main thread: blocks SIGRTMIN and SIGIO for it and the threads it
    // starts, initialises tracing (nx/process/trace_setting.h), which prints a few lines unless
    // told otherwise before (nx/foundation/CNxOwnLines.h), and registers a CNxThreadTask of type
    // NX_THREAD_MAIN that has the caller's identity. Its loop is the caller's to run:
    // GetThread(NX_THREAD_MAIN)->OnThreadRun().
    // NX_OK, NX_ERROR_ALREADY_INITIALIZED when any thread is registered already, NX_ERROR_FAILURE
    // without memory, or the result of CNxThread::Create. The arguments are not used.
    [[nodiscard]] virtual NxResult InitMainThread(int argc, char** argv) = 0;

    // Runs a main thread's loop on a new, detached system thread, which becomes the owner of its
    // event queue, timer queue or reactor; the caller must no longer act as the main thread.
    // Returns when the new thread has taken over. Nobody can join it: when its loop has ended,
    // GetThreadId() of the object is 0, and only then may the object be destroyed.
    // NX_OK, or NX_ERROR_FAILURE for null, for a thread of another type, or when no thread can be
    // started ("thread create failed\n" on stderr).
    [[nodiscard]] virtual NxResult MainThreadDetachRun(CNxThread* thread) = 0;

    // The registered thread of that type, for NX_THREAD_CALLING the one that is the caller; null
    // if there is none.
    virtual CNxThread* GetThread(int type) = 0;

    // What the thread of that type has; null if there is no such thread or it has none.
    virtual INxReactor* GetThreadReactor(int type) = 0;
    virtual INxEventQueue* GetThreadEventQueue(int type) = 0;
    virtual INxTimerQueue* GetThreadTimerQueue(int type) = 0;

    // Starts a thread that drains an event queue and, for a non-zero `withTimerQueue`, runs timers,
    // with the next user type. NX_OK with the thread in `out`; otherwise NX_ERROR_FAILURE without
    // memory or the result of CNxThread::Create, and `out` as it was. The caller ends it with Stop,
    // Join and Destory, or leaves that to StopAllThreads, JoinAllThreads and the tear-down.
    [[nodiscard]] virtual NxResult CreateUserTaskThread(CNxThread*& out, TFlag flags,
                                                        int withTimerQueue) = 0;

    // 4097, 4098, ...: a type that no other call gets.
    virtual int GetAndIncreamUserType() = 0;

    // Blocks the signal in the calling thread. NX_OK or NX_ERROR_FAILURE.
    virtual NxResult DisableSignal(int signo) = 0;

    // Starts a joinable thread that runs the reactor; returns when the reactor is open. The thread
    // owns the reactor from here on, also when the call fails: both are then destroyed.
    // NX_OK with the thread in `out`; NX_ERROR_INVALID_ARG for a null reactor, NX_ERROR_FAILURE
    // without memory, else the result of CNxThreadReactor::Create. The second is the same under the
    // name for further reactor threads.
    [[nodiscard]] virtual NxResult CreateNetworkThread(int type, INxReactor* reactor,
                                                       CNxThread*& out) = 0;
    [[nodiscard]] virtual NxResult CreateReactorThread(int type, INxReactor* reactor,
                                                       CNxThread*& out) = 0;

    // BEWARE: a reactor thread refuses a time-out and then runs on: pass null, or JoinAllThreads
    // waits for it without end.
    // Calls Stop(timeout) respectively Join() of every registered thread except the main one and
    // ignores their results: a thread with nothing to join (detached, a dummy, a heartbeat, joined
    // before) is passed over. A reactor whose StopEventLoop returns NX_ERROR_FAILURE is told by an
    // event. The thread of the precise timers is ended and joined by the first
    // JoinAllThreads after a StopAllThreads, after all others; any other one passes it over.
    // NX_OK; NX_ERROR_FAILURE, with nothing done, when a main thread is registered and the caller
    // is not it.
    virtual NxResult StopAllThreads(CNxTimeValue* timeout) = 0;
    virtual NxResult JoinAllThreads() = 0;

    // Enters a thread object into the registry; CNxThread does it by itself. NX_OK,
    // NX_ERROR_INVALID_ARG for null, NX_ERROR_FOUND when it or its type is registered,
    // NX_ERROR_FAILURE without memory.
    [[nodiscard]] virtual NxResult RegisterThread(CNxThread* thread) = 0;

    // Takes out the first entry that is the same object or has its type. NX_OK,
    // NX_ERROR_INVALID_ARG for null, NX_ERROR_NOT_FOUND; NX_ERROR_NOT_AVAILABLE, with nothing done,
    // while the tear-down waits for the threads that are registered.
    virtual NxResult UnregisterThread(CNxThread* thread) = 0;

    // The process-wide mutexes of singletons and of reference counts. They outlive the manager.
    // NX_OK.
    virtual NxResult GetSingletonMutex(CNxMutexThreadRecursive*& mutex) = 0;
    virtual NxResult GetReferenceControlMutex(CNxMutexThread*& mutex) = 0;

    // The manager of the process, made by the first call, on any thread.
    static CNxThreadManager* Instance();

    // Tears the manager down, as described above. Runs by itself at exit(). Not within an event
    // that is to go on after it: its sender has been woken by then.
    static void CleanupOnlyOne();

    // A new epoll reactor, not open yet. The caller owns it until it hands it to a thread.
    static INxReactor* CreateNetworkReactor();

    // Is told ("ThreadEnd", the CNxThread), on the thread itself, when a thread's loop has ended
    // without having been stopped: a reactor whose waiting fails for good. From there on nothing
    // that was registered is served and posts are refused, so a server ends itself: the observer
    // stops the main thread, and keeps in mind that its status is not 0. A record of level 1
    // (Error) is traced as well, with an observer or without. Null for none, as at first; not
    // owned; set it before the threads are made.
    static void SetThreadEndObserver(INxObserver* observer);
    static INxObserver* GetThreadEndObserver();

    // How long the tear-down waits, in all, for joinable threads that cannot be told to stop; 10 s
    // unless set, not at all for zero or less. Before exit(), on any thread.
    static void SetTearDownLimit(const CNxTimeValue& limit);

    // Nothing to do on this system. NX_OK.
    static NxResult SocketStartup();
    static NxResult SocketCleanup();

    // Thread ids are those of pthread_self(3).
    static unsigned long GetThreadSelfId();
    static bool IsThreadEqual(unsigned long a, unsigned long b);
    static bool IsEqualCurrentThread(unsigned long id);

    // Whether the registered thread of that type is the caller; false when there is none.
    static bool IsEqualCurrentThread(int type);

    // Sleeps that many milliseconds in full, also when signals interrupt it.
    static void SleepMs(unsigned long ms);

    // NX_THREAD_NETWORK.
    static int GetNetworkThreadModule();

protected:
    CNxThreadManager() = default;

public:
    CNxThreadManager(const CNxThreadManager&) = delete;
    CNxThreadManager& operator=(const CNxThreadManager&) = delete;
};
