// The processes of the machine, as /proc shows them (proc(5)). For the program's own path and home
// see nx/process/process_path.h; for starting processes CNxProcess.
#pragma once

#include <sys/types.h>

#include <vector>

#include <nx/foundation/CNxString.h>
#include <nx/foundation/CNxTimeValue.h>
#include <nx/foundation/NxResult.h>

// A plain value: one process at the moment it was read. Its id may belong to another process by
// now; which one is meant is told by id and start together. All that is in one value is of one
// process, also when its id is given away while it is read.
//
// Any thread may read. Processes that the kernel hides (hidepid) are not there.
class CNxProcessInfo {
public:
    // NX_OK; NX_ERROR_NOT_FOUND when there is no such process, or no more; NX_ERROR_INVALID_ARG for
    // an id below 1; NX_ERROR_FAILURE with errno; NX_ERROR_UNEXPECTED when the kernel's text is
    // none that is known. `info` changes with NX_OK only. The id of a thread is taken, too: it
    // finds the process, with the start of that thread.
    [[nodiscard]] static NxResult Read(pid_t pid, CNxProcessInfo& info);

    // Appends all processes, those that come and go meanwhile perhaps. NX_OK, or NX_ERROR_FAILURE
    // with errno or NX_ERROR_UNEXPECTED, as Read, and some may have been appended.
    [[nodiscard]] static NxResult List(std::vector<CNxProcessInfo>& infos);

    // Appends those of that GetName(). NX_OK; NX_ERROR_NOT_FOUND when there is none; else
    // as List, and nothing has been appended.
    [[nodiscard]] static NxResult FindByName(const CNxString& name,
                                             std::vector<CNxProcessInfo>& infos);

    // Reads again: whether the very process is there and has not ended. False also when that cannot
    // be read.
    [[nodiscard]] bool IsAlive() const;

    pid_t GetPid() const { return m_pid; }
    // 0 for those that the kernel started.
    pid_t GetParent() const { return m_parent; }

    // The name of the program file, or what the process calls itself. The kernel cuts it to 15
    // bytes; the rest is taken from the command line if that begins with it.
    const CNxString& GetName() const { return m_name; }

    // The arguments, the program's name first. Empty for a process that has ended and not been
    // waited for, and for those of the kernel.
    const std::vector<CNxString>& GetCommandLine() const { return m_commandLine; }

    // R running, S asleep, D in a wait that nothing interrupts, Z ended and not waited for, T
    // stopped, t stopped by a debugger, I an idle thread of the kernel, X ending. It is that of the
    // first thread: A PROCESS WHOSE FIRST THREAD HAS ENDED BEFORE THE OTHERS SAYS Z, with no
    // command line and no resident memory; IsAlive() knows it.
    char GetState() const { return m_state; }

    // In clock ticks (sysconf(_SC_CLK_TCK)) since the machine started.
    unsigned long GetStartTicks() const { return m_startTicks; }
    // The same as wall-clock time, to a tick; it moves when the system clock is set.
    CNxTimeValue GetStartTime() const;

    // In bytes, shared pages included. The kernel's own figure lags behind by some pages a thread.
    unsigned long GetResidentBytes() const { return m_residentBytes; }
    unsigned long GetThreads() const { return m_threads; }

private:
    pid_t m_pid = 0;
    pid_t m_parent = 0;
    CNxString m_name;
    std::vector<CNxString> m_commandLine;
    char m_state = '?';
    unsigned long m_startTicks = 0;
    unsigned long m_residentBytes = 0;
    unsigned long m_threads = 0;
};
