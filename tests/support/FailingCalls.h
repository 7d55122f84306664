// System calls of this process that fail when a test says so. Link fault_shim.
#pragma once

#include <tests/support/FaultPlan.h>

// Calls of all threads. What was asked for ends with the object; at most one at a time.
class FailingCalls {
public:
    enum ECall {
        ACCEPT4 = FaultPlan::CALL_accept4,
        SEND = FaultPlan::CALL_send,
        CLOSE = FaultPlan::CALL_close,
        EPOLL_CREATE = FaultPlan::CALL_epoll_create1,
        EPOLL_CTL = FaultPlan::CALL_epoll_ctl,
        PTHREAD_CREATE = FaultPlan::CALL_pthread_create,
        SIGQUEUE = FaultPlan::CALL_pthread_sigqueue,
        SOCKET = FaultPlan::CALL_socket,
    };

    FailingCalls() {
        for (FaultPlan::Call& call : nx_fault_plan()->calls) {
            call.seen = 0;
        }
    }
    ~FailingCalls() {
        for (FaultPlan::Call& call : nx_fault_plan()->calls) {
            call.count = 0;
        }
    }
    FailingCalls(const FailingCalls&) = delete;
    FailingCalls& operator=(const FailingCalls&) = delete;

    // The next `count` of them fail with `error`.
    void Fail(ECall call, int error, int count) {
        nx_fault_plan()->calls[call].Fail(error, 0, count);
    }

    // How many were made since construction, those that failed too.
    int Count(ECall call) const { return static_cast<int>(nx_fault_plan()->calls[call].seen); }
};
