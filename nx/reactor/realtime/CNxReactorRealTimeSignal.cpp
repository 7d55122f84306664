#include <fcntl.h>
#include <linux/sysctl.h>
#include <nx/reactor/realtime/CNxReactorRealTimeSignal.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <utility>
#include <vector>

namespace {

constexpr int c_wantedSignals = 81920;
constexpr int c_signalsPerTurn = 1024;
constexpr long c_nanosecondsPerMicrosecond = 1000;
constexpr int c_wake = 0;
constexpr int c_stop = 1;
constexpr long c_failed = POLLERR | POLLHUP | POLLNVAL;

// The thread of the process's one reactor, for signals that another thread got; 0 without one.
std::atomic<pid_t> s_reactorThread{0};
static_assert(std::atomic<pid_t>::is_always_lock_free, "a signal handler reads it");

pid_t GetSystemThreadId() {
    return static_cast<pid_t>(syscall(SYS_gettid));
}

// A signal handler. What the signal said is lost here; as an overflow it makes the loop look.
void ForwardAsOverflow(int /*signal*/) {
    const int error = errno;
    const pid_t thread = s_reactorThread.load();
    if (thread != 0 && thread != GetSystemThreadId()) {
        syscall(SYS_tgkill, getpid(), thread, SIGIO);
    }
    errno = error;
}

// The default action ends the process when a thread gets the signal that has not blocked it.
void ReplaceDefaultAction(int signal) {
    struct sigaction action {};
    const bool isDefault = sigaction(signal, nullptr, &action) == 0 &&
                           (action.sa_flags & SA_SIGINFO) == 0 && action.sa_handler == SIG_DFL;
    if (isDefault) {
        action.sa_handler = &ForwardAsOverflow;
        action.sa_flags = SA_RESTART;
        sigaction(signal, &action, nullptr);
    }
}

bool QueueSignal(pthread_t thread, int signal, int value) {
    sigval content{};
    content.sival_int = value;
    return pthread_sigqueue(thread, signal, content) == 0;
}

// The events that poll(2) reports at this moment; POLLNVAL when it cannot tell.
long PollNow(int fd, short events) {
    pollfd entry{fd, events, 0};
    return poll(&entry, 1, 0) >= 0 ? entry.revents : POLLNVAL;
}

long ToMask(long band) {
    if ((band & c_failed) != 0) {
        return NX_MASK_CLOSE;
    }
    long mask = 0;
    if ((band & POLLIN) != 0) {
        mask |= NX_MASK_INPUT | NX_MASK_CONNECT;
    }
    if ((band & POLLOUT) != 0) {
        mask |= NX_MASK_OUTPUT;
    }
    return mask;
}

// A socket that may still have its connect before it: until then poll(2) calls it hung up.
long ToMaskOfConnecting(long band) {
    return (band & (c_failed | POLLIN)) == POLLHUP ? 0 : ToMask(band);
}

}  // namespace

CNxReactorRealTimeSignal::CNxReactorRealTimeSignal(std::unique_ptr<CNxTimerQueueBase> timerQueue)
    : CNxReactorBase(std::move(timerQueue)), m_signal(SIGRTMIN) {
    init();
}

CNxReactorRealTimeSignal::~CNxReactorRealTimeSignal() {
    // Whoever destroys a reactor has it for himself.
    Reset2CurrentThread();
    LeaveThread();
    m_NotifyPipe.Close();
}

NxResult CNxReactorRealTimeSignal::init() {
    return BlockSignals();
}

NxResult CNxReactorRealTimeSignal::init2() {
    return BlockSignals();
}

// In a process with threads sigprocmask(2) is pthread_sigmask under another name.
NxResult CNxReactorRealTimeSignal::BlockSignals() {
    if (sigemptyset(&m_signals) != 0 || sigaddset(&m_signals, m_signal) != 0 ||
        sigaddset(&m_signals, SIGIO) != 0) {
        return NX_ERROR_UNEXPECTED;
    }
    return pthread_sigmask(SIG_BLOCK, &m_signals, nullptr) == 0 ? NX_OK : NX_ERROR_UNEXPECTED;
}

NxResult CNxReactorRealTimeSignal::Open() {
    return FinishOpen(OpenParts());
}

NxResult CNxReactorRealTimeSignal::OpenParts() {
    if (m_EhRepository.IsOpen()) {
        return NX_ERROR_ALREADY_INITIALIZED;
    }
    if (BlockSignals() != NX_OK) {
        return NX_ERROR_UNEXPECTED;
    }
    ReplaceDefaultAction(m_signal);
    ReplaceDefaultAction(SIGIO);
    SetProcRtsigMax_i(c_wantedSignals);
    ForgetWaitingSignals();
    const NxResult base = CNxReactorBase::Open();
    if (base != NX_OK) {
        return base;
    }
    m_pid = getpid();
    const NxResult pipe = m_NotifyPipe.Open(this);
    if (pipe != NX_OK) {
        return pipe;
    }
    CNxMutexGuardT<CNxMutexThread> guard(m_threadMutex);
    m_isThreadThere = true;
    m_isStopQueued = false;
    m_thread = pthread_self();
    s_reactorThread.store(GetSystemThreadId());
    return NX_OK;
}

// Wake-ups and stop requests of an earlier opening, and readiness of its registrations.
void CNxReactorRealTimeSignal::ForgetWaitingSignals() {
    siginfo_t info{};
    while (Wait(info, CNxTimeValue::s_tvZero()) != -1 || errno == EINTR) {
    }
    m_isWakeQueued.store(false);
    m_bSignalOverFlowing = 0;
    m_ready.clear();
    m_eventsDue = false;
    m_pollAllDue = false;
    m_signalsTaken = 0;
}

// The setting is gone from current kernels, and the system call with it; RLIMIT_SIGPENDING took
// its place.
int CNxReactorRealTimeSignal::SetProcRtsigMax_i(int wanted) {
#ifdef SYS__sysctl
    int name[] = {CTL_KERN, KERN_RTSIGMAX};
    int current = 0;
    size_t length = sizeof(current);
    __sysctl_args args{};
    args.name = name;
    args.nlen = 2;
    args.oldval = &current;
    args.oldlenp = &length;
    if (syscall(SYS__sysctl, &args) == -1) {
        return -1;
    }
    if (current >= wanted) {
        return current;
    }
    args.oldval = nullptr;
    args.oldlenp = nullptr;
    args.newval = &wanted;
    args.newlen = sizeof(wanted);
    if (syscall(SYS__sysctl, &args) != -1) {
        return wanted;
    }
    return errno == EPERM ? current : -1;
#else
    static_cast<void>(wanted);
    return -1;
#endif
}

NxResult CNxReactorRealTimeSignal::Close() {
    m_Est.EnsureSingleThread("a real-time-signal reactor");
    LeaveThread();
    m_NotifyPipe.Close();
    return CNxReactorBase::Close();
}

// From here on nobody sends signals to the thread, and no descriptor to the process.
void CNxReactorRealTimeSignal::LeaveThread() {
    {
        CNxMutexGuardT<CNxMutexThread> guard(m_threadMutex);
        if (m_isThreadThere) {
            s_reactorThread.store(0);
        }
        m_isThreadThere = false;
    }
    for (int fd = 0; fd < m_EhRepository.GetMaxHandler(); ++fd) {
        const int flags = IsRegistered(fd) ? fcntl(fd, F_GETFL) : -1;
        if (flags != -1 && (flags & O_ASYNC) != 0) {
            fcntl(fd, F_SETFL, flags & ~O_ASYNC);
        }
    }
}

bool CNxReactorRealTimeSignal::IsRegistered(int fd) const {
    return m_EhRepository.HasPlace(fd) && m_EhRepository.At(fd).m_handler != nullptr;
}

NxResult CNxReactorRealTimeSignal::NotifyHandler(INxEventHandler* handler, long mask) {
    if (handler != nullptr) {
        return m_NotifyPipe.Notify(handler, mask);
    }
    CNxMutexGuardT<CNxMutexThread> guard(m_threadMutex);
    if (!m_isThreadThere) {
        return NX_ERROR_FAILURE;
    }
    if (pthread_equal(m_thread, pthread_self()) != 0) {
        m_eventsDue = true;
        return NX_OK;
    }
    if (m_isWakeQueued.exchange(true) || QueueSignal(m_thread, m_signal, c_wake)) {
        return NX_OK;
    }
    m_isWakeQueued.store(false);
    m_NotifyPipe.Notify(nullptr, NX_MASK_EVENT_QUEUE);
    return NX_ERROR_FAILURE;
}

NxResult CNxReactorRealTimeSignal::StopEventLoop() {
    CNxMutexGuardT<CNxMutexThread> guard(m_threadMutex);
    if (!m_isThreadThere) {
        return NX_ERROR_FAILURE;
    }
    // On its own thread the loop sees the flag before it waits.
    const bool needsSignal = !m_isStopQueued && pthread_equal(m_thread, pthread_self()) == 0;
    if (needsSignal) {
        if (!QueueSignal(m_thread, m_signal, c_stop)) {
            return NX_ERROR_FAILURE;
        }
        m_isStopQueued = true;
    }
    SetStopFlag();
    return NX_OK;
}

NxResult CNxReactorRealTimeSignal::OnHandleRegister(int fd, long mask, INxEventHandler* handler) {
    const int flags = handler != nullptr ? fcntl(fd, F_GETFL) : -1;
    const bool isSetUp = flags != -1 && fcntl(fd, F_SETFL, O_RDWR | O_NONBLOCK | O_ASYNC) != -1 &&
                         fcntl(fd, F_SETSIG, m_signal) != -1 && fcntl(fd, F_SETOWN, m_pid) != -1;
    const NxResult result = isSetUp ? CheckReadiness(fd, mask) : NX_ERROR_UNEXPECTED;
    if (result == NX_OK) {
        return NX_OK;
    }
    if (IsRegistered(fd)) {
        // The registration is replaced whatever the answer, and no signal will tell the failure.
        m_ready.push_back({fd, NX_MASK_CLOSE});
    } else if (flags != -1) {
        fcntl(fd, F_SETFL, flags);
    }
    return result;
}

// A signal tells a change: what is the case already has to be asked for.
NxResult CNxReactorRealTimeSignal::CheckReadiness(int fd, long mask) {
    if ((mask & NX_MASK_CONNECT) != 0) {
        CheckConnect(fd);
        return NX_OK;
    }
    const NxResult input = CheckPollIn_i(fd);
    if (input == NX_OK && (mask & NX_MASK_WRITE) != 0) {
        CheckPollOut(fd);
    }
    return input;
}

NxResult CNxReactorRealTimeSignal::CheckPollIn_i(int fd) {
    const long band = PollNow(fd, POLLIN);
    if ((band & c_failed) != 0) {
        return NX_ERROR_FAILURE;
    }
    if ((band & POLLIN) != 0) {
        m_ready.push_back({fd, NX_MASK_INPUT});
    }
    return NX_OK;
}

void CNxReactorRealTimeSignal::CheckPollOut(int fd) {
    if ((PollNow(fd, POLLOUT) & POLLOUT) != 0) {
        m_ready.push_back({fd, NX_MASK_WRITE});
    }
}

// The connect of a local peer is over before the handler can be registered. Input is left alone.
void CNxReactorRealTimeSignal::CheckConnect(int fd) {
    const long mask =
        ToMaskOfConnecting(PollNow(fd, POLLIN | POLLOUT)) & (NX_MASK_OUTPUT | NX_MASK_CLOSE);
    // Input that is there is a sign of a connection, not of room.
    if (mask != 0) {
        m_ready.push_back({fd, mask});
    }
}

void CNxReactorRealTimeSignal::OnHandleRemoved(int fd) {
    fcntl(fd, F_SETFL, 0);
    const auto isSame = [fd](const CReady& ready) { return ready.m_fd == fd; };
    m_ready.erase(std::remove_if(m_ready.begin(), m_ready.end(), isSame), m_ready.end());
}

NxResult CNxReactorRealTimeSignal::RunEventLoop() {
    m_Est.EnsureSingleThread("a real-time-signal reactor");
    TakeOver();
    while (!IsStopped()) {
        CNxTimeValue remaining;
        FireTimers(remaining);
        // A timer may have stopped the loop.
        const bool mayWait = !IsStopped() && !HasDeferred();
        WaitAndDispatch(mayWait ? remaining : CNxTimeValue::s_tvZero());
    }
    RunLastEvents();
    return NX_OK;
}

// A loop may run on another thread than Open, which may have got the wake-ups until now.
void CNxReactorRealTimeSignal::TakeOver() {
    CNxMutexGuardT<CNxMutexThread> guard(m_threadMutex);
    if (!m_isThreadThere || pthread_equal(m_thread, pthread_self()) != 0) {
        return;
    }
    BlockSignals();
    m_thread = pthread_self();
    s_reactorThread.store(GetSystemThreadId());
    m_eventsDue = true;
}

void CNxReactorRealTimeSignal::WaitAndDispatch(const CNxTimeValue& remaining) {
    siginfo_t info{};
    const int result = Wait(info, remaining);
    const int error = result == -1 ? errno : 0;
    if (error == EINTR) {
        return;
    }
    if (error == EAGAIN) {
        RunDeferred();
        return;
    }
    if (result == -1 || result == SIGIO) {
        HandleOverflow(result, error);
    } else {
        HandleSignal(info);
    }
    if (++m_signalsTaken >= c_signalsPerTurn) {
        RunDeferred();
    }
}

int CNxReactorRealTimeSignal::Wait(siginfo_t& info, const CNxTimeValue& remaining) {
    if (remaining == CNxTimeValue::s_tvMax()) {
        return sigwaitinfo(&m_signals, &info);
    }
    const timespec timeout{remaining.GetSec(), remaining.GetUsec() * c_nanosecondsPerMicrosecond};
    return sigtimedwait(&m_signals, &info, &timeout);
}

void CNxReactorRealTimeSignal::HandleSignal(const siginfo_t& info) {
    m_bSignalOverFlowing = 0;
    if (info.si_code > 0) {
        HandleReadiness(info.si_fd, info.si_band);
        return;
    }
    // Whatever else comes with such a code was sent by a program and carries no descriptor.
    if (info.si_code == SI_QUEUE && info.si_value.sival_int == c_wake) {
        m_eventsDue = true;
    } else if (info.si_code == SI_QUEUE && info.si_value.sival_int == c_stop) {
        SetStopFlag();
    }
}

void CNxReactorRealTimeSignal::HandleReadiness(int fd, long band) {
    if (!IsRegistered(fd)) {
        return;
    }
    long mask = ToMask(band);
    // The signal may be one of an earlier opening of the descriptor.
    if ((m_EhRepository.At(fd).m_mask & NX_MASK_CONNECT) != 0) {
        mask = ToMaskOfConnecting(PollNow(fd, POLLIN | POLLOUT));
    } else if ((mask & NX_MASK_CLOSE) != 0) {
        mask = ToMask(PollNow(fd, POLLIN | POLLOUT));
    }
    const long reason = (mask & NX_MASK_CLOSE) != 0 ? static_cast<long>(NX_ERROR_FAILURE) : 0;
    ProcessHandleEvent(fd, mask, reason, 0, 0);
}

void CNxReactorRealTimeSignal::HandleOverflow(int result, int error) {
    std::printf(
        "CReactorRealTimeSignal::RunEventLoop. sigtimedwait() failed! sigRet=%d err=%d "
        "m_bSignalOverFlowing=%d\n",
        result, error, m_bSignalOverFlowing);
    if (m_bSignalOverFlowing != 0) {
        m_pollAllDue = true;
        return;
    }
    m_bSignalOverFlowing = 1;
    for (int fd = 0; fd < m_EhRepository.GetMaxHandler(); ++fd) {
        ProcessHandleEvent(fd, NX_MASK_INPUT | NX_MASK_OUTPUT, 0, 0, 1);
    }
    ProcessHandleEvent(-1, NX_MASK_EVENT_QUEUE, 0, 0, 0);
}

bool CNxReactorRealTimeSignal::HasDeferred() const {
    return m_eventsDue || m_pollAllDue || !m_ready.empty() || m_NotifyPipe.HasRecords();
}

void CNxReactorRealTimeSignal::RunDeferred() {
    m_signalsTaken = 0;
    if (m_pollAllDue) {
        m_pollAllDue = false;
        PollAll();
    }
    // Those that are added meanwhile wait for the next time.
    for (size_t left = m_ready.size(); left > 0 && !m_ready.empty(); --left) {
        const CReady next = m_ready.front();
        m_ready.pop_front();
        ProcessHandleEvent(next.m_fd, next.m_mask, 0, 1, 0);
    }
    // A record whose signal found no room.
    if (m_NotifyPipe.HasRecords()) {
        ProcessHandleEvent(m_NotifyPipe.GetHandle(), NX_MASK_READ, 0, 0, 0);
    }
    if (m_eventsDue) {
        m_eventsDue = false;
        m_isWakeQueued.store(false);
        ProcessHandleEvent(-1, NX_MASK_EVENT_QUEUE, 0, 0, 0);
    }
}

void CNxReactorRealTimeSignal::PollAll() {
    std::vector<pollfd> entries;
    for (int fd = 0; fd < m_EhRepository.GetMaxHandler(); ++fd) {
        if (IsRegistered(fd)) {
            entries.push_back({fd, POLLIN | POLLOUT, 0});
        }
    }
    if (poll(entries.data(), entries.size(), 0) <= 0) {
        return;
    }
    for (const pollfd& entry : entries) {
        const bool connecting = (m_EhRepository.At(entry.fd).m_mask & NX_MASK_CONNECT) != 0;
        const long mask = connecting ? ToMaskOfConnecting(entry.revents) : ToMask(entry.revents);
        // What a peer sent before it hung up is read first.
        if (mask == NX_MASK_CLOSE && (entry.revents & POLLIN) != 0) {
            m_ready.push_back({entry.fd, NX_MASK_INPUT});
        }
        if (mask != 0) {
            m_ready.push_back({entry.fd, mask});
        }
    }
}
