// Inside the library only: how the threads of a process end when it exits.
#pragma once

#include <vector>

class CNxThread;
class CNxTimeValue;

// For the thread manager's tear-down, on the thread that runs it. Nothing here needs memory.
class CThreadsEnd {
public:
    // How long a thread that cannot be told to stop is waited for.
    static void SetLimit(const CNxTimeValue& limit);

    // Neither stopped nor joined with the others.
    static bool IsEndedByManager(const CNxThread* thread);

    // Stops what can be stopped and joins what ends; what is left to be waited for no longer is
    // said on stderr. Reorders and shortens the list.
    static void StopAndJoin(std::vector<CNxThread*>& threads);

    // Whether the process has no thread but the calling one; false also when the system does not
    // tell.
    static bool IsOnlyThread();

private:
    static bool Stop(CNxThread* thread);
    static void JoinWithinLimit(const std::vector<CNxThread*>& threads);
};
