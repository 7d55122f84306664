// Child processes: how one is started, waited for and ended.
#pragma once

#include <sys/types.h>

#include <vector>

#include <nx/foundation/CNxString.h>
#include <nx/foundation/CNxTimeValue.h>
#include <nx/foundation/NxResult.h>
#include <nx/process/CNxEnvironment.h>

// What a new process has as its descriptor of that number.
struct CNxRedirection {
    static constexpr int NULL_DEVICE = -2;  // not what a failed open(2) returns

    int m_number;  // there, 0 to 255
    int m_source;  // a descriptor of this process, which stays open, or NULL_DEVICE
};

// How a process is to be started. Nothing here is looked at by a shell.
struct CNxProcessStart {
    // A path, or a name without '/', which is looked for in the PATH of this process. A path that
    // is relative starts from the working folder of the new process.
    CNxString m_program;
    // Behind the program's name, which it gets as it stands in m_program.
    std::vector<CNxString> m_arguments;
    // All that it gets; null for the environment of this process.
    const CNxEnvironment* m_environment = nullptr;
    // Empty: the one of this process.
    CNxString m_workingFolder;
    // Of 0, 1 and 2 those that are not here are those of this process; ALL OTHERS ARE CLOSED.
    std::vector<CNxRedirection> m_descriptors;
};

// How a process has ended.
struct CNxProcessEnd {
    bool m_bySignal = false;
    int m_number = 0;  // of the signal, or the exit status, 0 to 255

    bool IsSuccess() const { return !m_bySignal && m_number == 0; }
};

// One child process from Start() until its end was waited for; an object may start another one
// then. It belongs to one thread at a time. A child of fork cannot wait for its parent's processes:
// its copy of the object leaves them alone.
//
// THE PROCESS DOES NOT OUTLIVE THE OBJECT: the destructor kills it and waits, so that nobody is
// left running, or a zombie, by accident. One that is to live on becomes a daemon by itself
// (cnx_daemonise).
//
// Who ignores SIGCHLD, or waits for any child with wait(2), takes the end away from here.
class CNxProcess {
public:
    CNxProcess() = default;
    ~CNxProcess();
    CNxProcess(const CNxProcess&) = delete;
    CNxProcess& operator=(const CNxProcess&) = delete;

    // Returns when the program runs. It has all signals at their defaults and none blocked,
    // whatever is so in this thread. NX_OK; NX_ERROR_ALREADY_INITIALIZED while a process was not
    // waited for; NX_ERROR_INVALID_ARG for an empty program, a zero byte in any text, and a number
    // below 0, above 255 or given twice. Nothing is left of a process that could not be started:
    // NX_ERROR_NOT_FOUND when program, the interpreter it names, or working folder do not exist;
    // NX_ERROR_FAILURE with errno (EACCES, ENOEXEC, EBADF for a source that is not open, EMFILE,
    // ENOMEM ...).
    [[nodiscard]] NxResult Start(const CNxProcessStart& start);

    // Waits for the end, as long as `timeout`, or without limit for null and s_tvMax(). May be
    // called again, and tells the same. NX_OK with the end in `end`; NX_ERROR_TIMEOUT;
    // NX_ERROR_NOT_INITIALIZED when nothing was started; NX_ERROR_NOT_AVAILABLE when it has ended
    // and somebody else took the end away (see above); NX_ERROR_FAILURE with errno.
    [[nodiscard]] NxResult Wait(CNxProcessEnd& end, const CNxTimeValue* timeout = nullptr);

    // Sends it a signal, never to another process that has its id by now.
    // NX_OK, also when it has just ended; NX_ERROR_NOT_INITIALIZED when nothing was started or the
    // end was waited for, or taken away before Start() returned; NX_ERROR_FAILURE with errno
    // (EPERM, EINVAL).
    [[nodiscard]] NxResult Signal(int signo) const;

    // SIGTERM, and after `grace` SIGKILL; returns as Wait() without limit.
    [[nodiscard]] NxResult Stop(const CNxTimeValue& grace, CNxProcessEnd& end);

    // 0 when nothing was started.
    pid_t GetPid() const { return m_pid; }

    // A descriptor that is readable when the process has ended, for a reactor (pidfd_open(2)); -1
    // when there is none to wait for. Valid until Wait() returned NX_OK; not to be closed.
    int GetHandle() const { return m_handle; }

private:
    bool IsToBeWaitedFor() const { return m_handle >= 0; }
    [[nodiscard]] NxResult Reap();

    pid_t m_pid = 0;
    pid_t m_starter = 0;  // the process whose child it is
    int m_handle = -1;
    NxResult m_reaped = NX_ERROR_NOT_INITIALIZED;  // what Wait() returns without m_handle
    CNxProcessEnd m_end;
};
