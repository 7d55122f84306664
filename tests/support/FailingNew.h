// Replaces operator new in the program that links FailingNew.cpp: allocations fail when told to.
#pragma once

namespace failing_new {

// After `skip` good ones, the next `count` allocations of the whole process fail.
void Fail(long skip, long count);

// How many were made since Fail.
long GetMade();

// None fails any more. Returns how many were made since Fail.
long Stop();

}  // namespace failing_new
