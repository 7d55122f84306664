#include <nx/reactor/realtime/CReactorSignals.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cassert>
#include <cerrno>
#include <cstddef>
#include <initializer_list>

// After the others, because it uses size_t and does not say where that is from.
#include <linux/sysctl.h>

namespace {

constexpr long c_nanosecondsPerMicrosecond = 1000;

std::atomic<pid_t> s_taker{0};
static_assert(std::atomic<pid_t>::is_always_lock_free, "a signal handler reads it");

sigset_t MakeSet() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, CReactorSignals::GetNumber());
    sigaddset(&set, SIGIO);
    return set;
}

const sigset_t& GetSet() {
    static const sigset_t s_set = MakeSet();
    return s_set;
}

// A signal handler.
void ForwardAsOverflow(int /*signal*/) {
    const int error = errno;
    const pid_t taker = s_taker.load();
    if (taker != 0 && taker != static_cast<pid_t>(syscall(SYS_gettid))) {
        // A taker that has ended meanwhile needs none.
        syscall(SYS_tgkill, getpid(), taker, SIGIO);
    }
    errno = error;
}

}  // namespace

int CReactorSignals::GetNumber() {
    return SIGRTMIN;
}

NxResult CReactorSignals::Block() {
    return pthread_sigmask(SIG_BLOCK, &GetSet(), nullptr) == 0 ? NX_OK : NX_ERROR_UNEXPECTED;
}

void CReactorSignals::ReplaceDefaultActions() {
    for (const int signal : {GetNumber(), SIGIO}) {
        struct sigaction action {};
        const bool isDefault = sigaction(signal, nullptr, &action) == 0 &&
                               (action.sa_flags & SA_SIGINFO) == 0 && action.sa_handler == SIG_DFL;
        if (isDefault) {
            action.sa_handler = &ForwardAsOverflow;
            action.sa_flags = SA_RESTART;
            [[maybe_unused]] const int replaced = sigaction(signal, &action, nullptr);
            assert(replaced == 0);
        }
    }
}

void CReactorSignals::SetTaker(pid_t thread) {
    s_taker.store(thread);
}

int CReactorSignals::SetProcRtsigMax_i(int wanted) {
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

int CReactorSignals::Take(siginfo_t& info, const CNxTimeValue& timeout) {
    const timespec time{timeout.GetSec(), timeout.GetUsec() * c_nanosecondsPerMicrosecond};
    return sigtimedwait(&GetSet(), &info, &time);
}

void CReactorSignals::TakeAll() {
    siginfo_t info{};
    while (Take(info, CNxTimeValue::s_tvZero()) != -1 || errno == EINTR) {
    }
}
