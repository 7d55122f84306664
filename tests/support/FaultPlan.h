// Which system calls fail: written by a test, obeyed by fault_shim.
//
// A program that runs with LD_PRELOAD naming the shim has its plan in the file of this size that
// NX_FAULT_PLAN names; one that is linked with the shim has one of its own.
#pragma once

#include <atomic>

// Calls that the servers under test make, and their errors: those that the manual pages allow,
// without what only a wrong argument makes (EBADF, EFAULT, EINVAL).
// The formatter would lay the list out anew at every run.
// clang-format off
#define NX_FAULT_CALLS(CALL) \
    CALL(accept4, EAGAIN, ECONNABORTED, EINTR, EMFILE, ENFILE, ENOBUFS, ENOMEM, EPERM, EPROTO) \
    CALL(bind, EACCES, EADDRINUSE, ENOMEM) \
    CALL(chmod, EIO, EROFS) \
    CALL(close, EINTR, EIO) \
    CALL(connect, EAGAIN, ECONNREFUSED, EINTR, ENETUNREACH) \
    CALL(epoll_create1, EMFILE, ENFILE, ENOMEM) \
    CALL(epoll_ctl, ENOMEM, ENOSPC) \
    CALL(epoll_wait, EINTR) \
    CALL(eventfd, EMFILE, ENFILE, ENODEV, ENOMEM) \
    CALL(fchmod, EPERM, EIO, EROFS) \
    CALL(fcntl, EACCES, EAGAIN, EINTR, ENOLCK) \
    CALL(flock, EINTR, ENOLCK, EWOULDBLOCK) \
    CALL(fstat, ENOMEM, EOVERFLOW) \
    CALL(ftruncate, EFBIG, EINTR, EIO) \
    CALL(getpeername, ENOBUFS, ENOTCONN) \
    CALL(getrlimit, EPERM) \
    CALL(getsockname, ENOBUFS) \
    CALL(getsockopt, ENOPROTOOPT) \
    CALL(ioctl, ENOTTY) \
    CALL(listen, EADDRINUSE) \
    CALL(lstat, EACCES, ENOENT, ENOMEM) \
    CALL(mkdir, EACCES, EEXIST, EMLINK, ENOSPC, EROFS) \
    CALL(mmap, ENOMEM, EAGAIN, ENFILE) \
    CALL(nanosleep, EINTR) \
    CALL(open, EACCES, EINTR, EMFILE, ENFILE, ENOSPC, ENOMEM, EROFS) \
    CALL(poll, EINTR, ENOMEM) \
    CALL(pread, EINTR, EIO) \
    CALL(pthread_create, EAGAIN, EPERM) \
    CALL(pthread_sigqueue, EAGAIN) \
    CALL(pwrite, EDQUOT, EFBIG, EINTR, EIO, ENOSPC) \
    CALL(read, EAGAIN, EINTR, EIO) \
    CALL(readlink, EACCES, EIO, ENOENT) \
    CALL(recv, EAGAIN, ECONNRESET, EINTR, ENOBUFS, ENOMEM) \
    CALL(recvmmsg, EAGAIN, ECONNREFUSED, EINTR, ENOBUFS, ENOMEM) \
    CALL(send, EAGAIN, ECONNRESET, EINTR, ENOBUFS, ENOMEM, EPIPE) \
    CALL(sendmmsg, EAGAIN, ECONNREFUSED, EINTR, EMSGSIZE, ENETUNREACH, ENOBUFS, ENOMEM, EPERM) \
    CALL(sendmsg, EAGAIN, ECONNRESET, EINTR, ENOBUFS, ENOMEM, EPIPE) \
    CALL(setsockopt, ENOPROTOOPT, ENOMEM) \
    CALL(shutdown, ENOTCONN) \
    CALL(signalfd, EMFILE, ENFILE, ENOMEM) \
    CALL(socket, EACCES, EMFILE, ENFILE, ENOBUFS, ENOMEM) \
    CALL(stat, EACCES, ENOENT, ENOMEM) \
    CALL(timerfd_create, EMFILE, ENFILE, ENOMEM) \
    CALL(write, EAGAIN, EINTR, EIO, ENOSPC, EPIPE)
// clang-format on

// Everything is zero at first: no call fails.
struct FaultPlan {
#define NX_FAULT_NAME(name, ...) CALL_##name,
    enum ECall { NX_FAULT_CALLS(NX_FAULT_NAME) CALL_COUNT };
#undef NX_FAULT_NAME

    struct Call {
        // After `skip` good ones so many fail.
        void Fail(int withError, long afterSkipped, long thenFailing) {
            count = 0;
            failed = 0;
            error = withError;
            skip = afterSkipped;
            count = thenFailing;
        }

        std::atomic<int> error;  // its errno
        std::atomic<long> skip;
        std::atomic<long> count;
        std::atomic<long> failed;
        std::atomic<long> seen;  // those that failed too
    };
    Call calls[CALL_COUNT];
};

// Of the process that the shim is in.
extern "C" FaultPlan* nx_fault_plan();
