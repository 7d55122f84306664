// Preloaded into a program: has one of its system calls fail as a FaultPlan says.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <tests/support/FaultPlan.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace {

FaultPlan* OpenPlan() {
    static FaultPlan s_own;
    const char* const path = std::getenv("NX_FAULT_PLAN");
    if (path == nullptr) {
        return &s_own;
    }
    // Not through the functions below.
    const long fd = syscall(SYS_openat, AT_FDCWD, path, O_RDWR | O_CLOEXEC, 0);
    const long at =
        syscall(SYS_mmap, 0, sizeof(FaultPlan), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    syscall(SYS_close, fd);
    return at == -1 ? &s_own : reinterpret_cast<FaultPlan*>(at);
}

// The error that this call is to fail with, or 0.
int Inject(FaultPlan::ECall which) {
    FaultPlan::Call& call = nx_fault_plan()->calls[which];
    ++call.seen;
    if (call.count <= 0 || call.skip.fetch_sub(1) > 0 || call.count.fetch_sub(1) <= 0) {
        return 0;
    }
    ++call.failed;
    return call.error;
}

// What a call that fails returns.
long Fail(FaultPlan::ECall which, int error) {
    if (which == FaultPlan::CALL_pthread_create || which == FaultPlan::CALL_pthread_sigqueue) {
        return error;
    }
    errno = error;
    return -1;
}

}  // namespace

extern "C" FaultPlan* nx_fault_plan() {
    static FaultPlan* const s_plan = OpenPlan();
    return s_plan;
}

// Under names of their own, because the headers of the system declare them in other ways. Each
// takes six integers and addresses at most and returns one: their registers are passed on as they
// are. One that closes does so all the same, as in the system.
#define NX_SHIM(name, ...)                                                          \
    extern "C" long shim_##name(long, long, long, long, long, long) __asm__(#name); \
    long shim_##name(long a, long b, long c, long d, long e, long f) {              \
        static const auto s_real =                                                  \
            reinterpret_cast<decltype(&shim_##name)>(dlsym(RTLD_NEXT, #name));      \
        constexpr FaultPlan::ECall c_which = FaultPlan::CALL_##name;                \
        const int error = Inject(c_which);                                          \
        const bool isMade = error == 0 || c_which == FaultPlan::CALL_close;         \
        const long result = isMade ? s_real(a, b, c, d, e, f) : 0;                  \
        return error == 0 ? result : Fail(c_which, error);                          \
    }
NX_FAULT_CALLS(NX_SHIM)
