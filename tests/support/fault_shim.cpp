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

}  // namespace

extern "C" FaultPlan* nx_fault_plan() {
    static FaultPlan* const s_plan = OpenPlan();
    return s_plan;
}

// Under names of their own, because the headers of the system declare them in other ways. A third
// argument that the caller left out is passed on as it is found.
#define NX_FAULT(result, name, parameters, arguments, failure)                          \
    extern "C" result shim_##name parameters __asm__(#name);                            \
    result shim_##name parameters {                                                     \
        using Function = result(*) parameters;                                          \
        static const auto s_real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, #name)); \
        const int error = Inject(FaultPlan::CALL_##name);                               \
        if (error != 0) {                                                               \
            errno = error;                                                              \
            return failure;                                                             \
        }                                                                               \
        return s_real arguments;                                                        \
    }

NX_FAULT(int, accept4, (int a, void* b, void* c, int d), (a, b, c, d), -1)
NX_FAULT(int, bind, (int a, const void* b, unsigned c), (a, b, c), -1)
NX_FAULT(int, chmod, (const char* a, unsigned b), (a, b), -1)
// Closes all the same: so does the system.
NX_FAULT(int, close, (int a), (a), (s_real(a), errno = error, -1))
NX_FAULT(int, connect, (int a, const void* b, unsigned c), (a, b, c), -1)
NX_FAULT(int, epoll_create1, (int a), (a), -1)
NX_FAULT(int, epoll_ctl, (int a, int b, int c, void* d), (a, b, c, d), -1)
NX_FAULT(int, epoll_wait, (int a, void* b, int c, int d), (a, b, c, d), -1)
NX_FAULT(int, eventfd, (unsigned a, int b), (a, b), -1)
NX_FAULT(int, fchmod, (int a, unsigned b), (a, b), -1)
NX_FAULT(int, fcntl, (int a, int b, long c), (a, b, c), -1)
NX_FAULT(int, flock, (int a, int b), (a, b), -1)
NX_FAULT(void*, fopen, (const char* a, const char* b), (a, b), nullptr)
NX_FAULT(int, fstat, (int a, void* b), (a, b), -1)
NX_FAULT(int, ftruncate, (int a, long b), (a, b), -1)
NX_FAULT(int, getpeername, (int a, void* b, void* c), (a, b, c), -1)
NX_FAULT(long, getrandom, (void* a, size_t b, unsigned c), (a, b, c), -1)
NX_FAULT(int, getrlimit, (int a, void* b), (a, b), -1)
NX_FAULT(int, getsockname, (int a, void* b, void* c), (a, b, c), -1)
NX_FAULT(int, getsockopt, (int a, int b, int c, void* d, void* e), (a, b, c, d, e), -1)
NX_FAULT(int, ioctl, (int a, unsigned long b, void* c), (a, b, c), -1)
NX_FAULT(int, listen, (int a, int b), (a, b), -1)
NX_FAULT(int, lstat, (const char* a, void* b), (a, b), -1)
NX_FAULT(int, mkdir, (const char* a, unsigned b), (a, b), -1)
NX_FAULT(void*, mmap, (void* a, size_t b, int c, int d, int e, long f), (a, b, c, d, e, f),
         reinterpret_cast<void*>(-1))
NX_FAULT(int, nanosleep, (const void* a, void* b), (a, b), -1)
NX_FAULT(int, open, (const char* a, int b, unsigned c), (a, b, c), -1)
NX_FAULT(int, pipe2, (int* a, int b), (a, b), -1)
NX_FAULT(int, poll, (void* a, unsigned long b, int c), (a, b, c), -1)
NX_FAULT(long, pread, (int a, void* b, size_t c, long d), (a, b, c, d), -1)
NX_FAULT(int, pthread_create, (void* a, const void* b, void* (*c)(void*), void* d), (a, b, c, d),
         error)
NX_FAULT(int, pthread_sigqueue, (unsigned long a, int b, void* c), (a, b, c), error)
NX_FAULT(long, pwritev, (int a, const void* b, int c, long d), (a, b, c, d), -1)
NX_FAULT(long, read, (int a, void* b, size_t c), (a, b, c), -1)
NX_FAULT(long, readlink, (const char* a, char* b, size_t c), (a, b, c), -1)
NX_FAULT(long, recv, (int a, void* b, size_t c, int d), (a, b, c, d), -1)
NX_FAULT(int, select, (int a, void* b, void* c, void* d, void* e), (a, b, c, d, e), -1)
NX_FAULT(long, send, (int a, const void* b, size_t c, int d), (a, b, c, d), -1)
NX_FAULT(long, sendfile, (int a, int b, long* c, size_t d), (a, b, c, d), -1)
NX_FAULT(long, sendmsg, (int a, const void* b, int c), (a, b, c), -1)
NX_FAULT(long, sendto, (int a, const void* b, size_t c, int d, const void* e, unsigned f),
         (a, b, c, d, e, f), -1)
NX_FAULT(int, setrlimit, (int a, const void* b), (a, b), -1)
NX_FAULT(int, setsockopt, (int a, int b, int c, const void* d, unsigned e), (a, b, c, d, e), -1)
NX_FAULT(int, shutdown, (int a, int b), (a, b), -1)
NX_FAULT(int, signalfd, (int a, const void* b, int c), (a, b, c), -1)
NX_FAULT(int, sigtimedwait, (const void* a, void* b, const void* c), (a, b, c), -1)
NX_FAULT(int, sigwait, (const void* a, int* b), (a, b), error)
NX_FAULT(int, socket, (int a, int b, int c), (a, b, c), -1)
NX_FAULT(int, socketpair, (int a, int b, int c, int* d), (a, b, c, d), -1)
NX_FAULT(int, stat, (const char* a, void* b), (a, b), -1)
NX_FAULT(int, timerfd_create, (int a, int b), (a, b), -1)
NX_FAULT(long, write, (int a, const void* b, size_t c), (a, b, c), -1)
NX_FAULT(long, writev, (int a, const void* b, int c), (a, b, c), -1)
