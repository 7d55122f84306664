// The memory under the control of a test: a test program that has FailingNew.cpp among its sources
// gets an operator new that fails when it is told to.
#pragma once

// From here to the end of the scope the n-th allocation (from 0) of any thread fails, and with
// `onwards` all that follow it too.
class FailingNew {
public:
    enum EHow { ONCE, ONWARDS };

    FailingNew(long n, EHow how);
    ~FailingNew();
    FailingNew(const FailingNew&) = delete;
    FailingNew& operator=(const FailingNew&) = delete;

    // How many have failed so far.
    static long CountFailed();
};
