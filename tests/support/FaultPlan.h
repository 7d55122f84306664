// Which system call of another program is to fail: written by a test, read by fault_shim.
//
// The program runs with LD_PRELOAD naming the shim and NX_FAULT_PLAN naming a file of this size.
#pragma once

#include <atomic>

// name: what the shim returns when it fails
// The formatter would lay the list out anew at every run.
// clang-format off
#define NX_FAULT_CALLS(CALL) \
    CALL(accept4) CALL(bind) CALL(close) CALL(epoll_create1) CALL(epoll_ctl) CALL(epoll_wait) \
    CALL(eventfd) CALL(fchmod) CALL(fcntl) CALL(flock) CALL(fopen) CALL(fstat) CALL(ftruncate) \
    CALL(getpeername) CALL(getrandom) CALL(getrlimit) CALL(getsockname) CALL(getsockopt) \
    CALL(ioctl) CALL(listen) CALL(mkdir) CALL(mmap) CALL(nanosleep) CALL(open) CALL(pipe2) \
    CALL(poll) CALL(pread) CALL(pthread_create) CALL(pthread_sigqueue) CALL(pwritev) CALL(read) \
    CALL(readlink) \
    CALL(recv) CALL(select) CALL(send) CALL(sendmsg) CALL(sendto) CALL(setrlimit) \
    CALL(setsockopt) CALL(shutdown) CALL(sigtimedwait) CALL(sigwait) CALL(socket) \
    CALL(socketpair) CALL(stat) CALL(write) CALL(writev)
// clang-format on

struct FaultPlan {
#define NX_FAULT_NAME(name) CALL_##name,
    enum ECall { NX_FAULT_CALLS(NX_FAULT_NAME) CALL_COUNT };
#undef NX_FAULT_NAME

    std::atomic<int> call;    // which one; CALL_COUNT for none
    std::atomic<int> error;   // its errno
    std::atomic<long> skip;   // so many go well first
    std::atomic<long> count;  // then so many fail
    std::atomic<long> failed;
    std::atomic<long> seen[CALL_COUNT];
};
