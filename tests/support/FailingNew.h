// Replaces operator new in the program that links FailingNew.cpp: allocations fail when told to.
#pragma once

#include <limits>

namespace failing_new {

// After `skip` good ones, the next `count` allocations of the whole process fail.
void Fail(long skip, long count);

// How many failed since Fail.
long GetFailed();

// None fails any more. Returns how many were made since Fail, those that failed among them.
long Stop();

}  // namespace failing_new

// From here to the end of the scope the n-th allocation (from 0) of any thread fails, and with
// ONWARDS all that follow it too.
class FailingNew {
public:
    enum EHow { ONCE, ONWARDS };

    FailingNew(long n, EHow how) {
        failing_new::Fail(n, how == ONCE ? 1 : std::numeric_limits<long>::max());
    }
    ~FailingNew() { failing_new::Stop(); }
    FailingNew(const FailingNew&) = delete;
    FailingNew& operator=(const FailingNew&) = delete;

    static long CountFailed() { return failing_new::GetFailed(); }
};
