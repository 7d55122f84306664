// System calls of this process that fail when a test says so. Link FailingCalls.cpp.
#pragma once

// Calls of all threads. What was asked for ends with the object; at most one at a time.
class FailingCalls {
public:
    enum ECall { SEND, EPOLL_CTL, GETSOCKOPT, SIGQUEUE, CALLS };

    FailingCalls();
    ~FailingCalls();
    FailingCalls(const FailingCalls&) = delete;
    FailingCalls& operator=(const FailingCalls&) = delete;

    // The next `count` of them fail with `error`.
    void Fail(ECall call, int error, int count);

    // How many were made since construction, those that failed too.
    int Count(ECall call) const;
};
