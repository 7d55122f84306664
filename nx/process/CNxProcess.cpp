#include <fcntl.h>
#include <nx/foundation/CKeptErrno.h>
#include <nx/foundation/has_zero_byte.h>
#include <nx/process/CDescriptor.h>
#include <nx/process/CNxProcess.h>
#include <nx/process/CatchBadAlloc.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <climits>
#include <csignal>
#include <new>

namespace {

constexpr int c_maxNumber = 255;

NxResult ResultOfSpawn(int error) {
    const NxResult result = ResultOfError(error);
    return error == ENOENT ? NX_ERROR_NOT_FOUND : result;
}

bool IsNumber(const CNxRedirection& redirection) {
    return redirection.m_number >= 0 && redirection.m_number <= c_maxNumber;
}

bool IsValid(const CNxProcessStart& start) {
    std::vector<int> numbers;
    for (const CNxRedirection& redirection : start.m_descriptors) {
        numbers.push_back(redirection.m_number);
    }
    std::sort(numbers.begin(), numbers.end());
    const bool hasDouble = std::adjacent_find(numbers.begin(), numbers.end()) != numbers.end();
    return !start.m_program.empty() && !HasZeroByte(start.m_program) &&
           !HasZeroByte(start.m_workingFolder) && !hasDouble &&
           std::none_of(start.m_arguments.begin(), start.m_arguments.end(), HasZeroByte) &&
           std::all_of(start.m_descriptors.begin(), start.m_descriptors.end(), IsNumber);
}

// The list of pointers, with a null at its end, that exec wants.
class CPointers {
public:
    void Add(const CNxString& text) { m_pointers.push_back(const_cast<char*>(text.c_str())); }
    void Add(const std::vector<CNxString>& texts) {
        for (const CNxString& text : texts) {
            Add(text);
        }
    }
    char** Get() {
        m_pointers.push_back(nullptr);
        return m_pointers.data();
    }

private:
    std::vector<char*> m_pointers;
};

// What the child does before it becomes the program: posix_spawn_file_actions_init(3).
class CFileActions {
public:
    CFileActions() { Check(posix_spawn_file_actions_init(&m_actions)); }
    ~CFileActions() { posix_spawn_file_actions_destroy(&m_actions); }
    CFileActions(const CFileActions&) = delete;
    CFileActions& operator=(const CFileActions&) = delete;

    // 0 or an errno.
    [[nodiscard]] int Fill(const CNxProcessStart& start) {
        if (!start.m_workingFolder.empty()) {
            Check(posix_spawn_file_actions_addchdir_np(&m_actions, start.m_workingFolder.c_str()));
        }
        int end = STDERR_FILENO + 1;
        for (const CNxRedirection& redirection : start.m_descriptors) {
            end = std::max(end, redirection.m_number + 1);
        }
        CloseBelow(end, start.m_descriptors);
        for (const CNxRedirection& redirection : start.m_descriptors) {
            if (redirection.m_source == CNxRedirection::NULL_DEVICE) {
                Check(posix_spawn_file_actions_addopen(&m_actions, redirection.m_number,
                                                       "/dev/null", O_RDWR, 0));
            } else if (!Redirect(redirection, end)) {
                return errno;
            }
        }
        Check(posix_spawn_file_actions_addclosefrom_np(&m_actions, end));
        return 0;
    }
    const posix_spawn_file_actions_t* Get() const { return &m_actions; }

private:
    // The functions fail for want of memory only.
    static void Check(int error) {
        if (error != 0) {
            throw std::bad_alloc();
        }
    }

    // Those between the standard streams and the last number that are not redirected.
    void CloseBelow(int end, const std::vector<CNxRedirection>& redirections) {
        for (int number = STDERR_FILENO + 1; number < end; ++number) {
            const bool isWanted =
                std::any_of(redirections.begin(), redirections.end(),
                            [&](const CNxRedirection& one) { return one.m_number == number; });
            if (!isWanted) {
                Check(posix_spawn_file_actions_addclose(&m_actions, number));
            }
        }
    }

    // By way of a duplicate above all numbers: the source may be one that is redirected itself.
    bool Redirect(const CNxRedirection& redirection, int end) {
        CDescriptor source(fcntl(redirection.m_source, F_DUPFD_CLOEXEC, end));
        if (!source.IsOpen()) {
            return false;
        }
        assert(source.Get() >= end);
        m_sources.push_back(std::move(source));
        Check(posix_spawn_file_actions_adddup2(&m_actions, m_sources.back().Get(),
                                               redirection.m_number));
        return true;
    }

    posix_spawn_file_actions_t m_actions;
    std::vector<CDescriptor> m_sources;
};

// All signals at their defaults, none blocked.
class CSignalDefaults {
public:
    CSignalDefaults() {
        if (posix_spawnattr_init(&m_attributes) != 0) {
            throw std::bad_alloc();
        }
        sigset_t none;
        sigset_t all;
        sigemptyset(&none);
        sigfillset(&all);
        // They only store, and fail for flags that do not exist.
        static_cast<void>(posix_spawnattr_setsigmask(&m_attributes, &none));
        static_cast<void>(posix_spawnattr_setsigdefault(&m_attributes, &all));
        static_cast<void>(posix_spawnattr_setflags(&m_attributes,
                                                   POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF));
    }
    ~CSignalDefaults() { posix_spawnattr_destroy(&m_attributes); }
    CSignalDefaults(const CSignalDefaults&) = delete;
    CSignalDefaults& operator=(const CSignalDefaults&) = delete;

    const posix_spawnattr_t* Get() const { return &m_attributes; }

private:
    posix_spawnattr_t m_attributes;
};

NxResult Spawn(const CNxProcessStart& start, pid_t& pid) {
    CFileActions actions;
    const int error = actions.Fill(start);
    if (error != 0) {
        return ResultOfError(error);
    }
    CPointers arguments;
    arguments.Add(start.m_program);
    arguments.Add(start.m_arguments);
    CPointers environment;
    if (start.m_environment != nullptr) {
        environment.Add(start.m_environment->GetEntries());
    }
    const CSignalDefaults signals;
    return ResultOfSpawn(
        posix_spawnp(&pid, start.m_program.c_str(), actions.Get(), signals.Get(), arguments.Get(),
                     start.m_environment != nullptr ? environment.Get() : environ));
}

// The C library's own wrappers, where it has them, are not declared for C++.
int OpenPidfd(pid_t pid) {
    return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
}
int SendSignal(int pidfd, int signo) {
    return static_cast<int>(syscall(SYS_pidfd_send_signal, pidfd, signo, nullptr, 0));
}

void KillAndForget(pid_t pid) {
    const CKeptErrno keptErrno;
    kill(pid, SIGKILL);
    while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
}

// In milliseconds for poll(2), never too short.
int GetRest(const CNxTimeValue& deadline) {
    const CNxTimeValue rest = deadline - CNxTimeValue::GetMonotonicTime();
    if (rest <= CNxTimeValue::s_tvZero()) {
        return 0;
    }
    return rest.GetSec() >= INT_MAX / 1000 ? INT_MAX : static_cast<int>(rest.GetTotalInMsec()) + 1;
}

// NX_OK when the process has ended.
NxResult WaitUntil(int handle, const CNxTimeValue& timeout) {
    const CNxTimeValue deadline = CNxTimeValue::GetMonotonicTime() + timeout;
    for (;;) {
        const int rest = GetRest(deadline);
        pollfd ended{handle, POLLIN, 0};
        const int count = poll(&ended, 1, rest);
        if (count > 0) {
            return NX_OK;
        }
        if (count < 0 && errno != EINTR) {
            return NX_ERROR_FAILURE;
        }
        if (count == 0 && rest == 0) {
            return NX_ERROR_TIMEOUT;
        }
    }
}

}  // namespace

CNxProcess::~CNxProcess() {
    if (!IsToBeWaitedFor()) {
        return;
    }
    if (m_starter == getpid() && Signal(SIGKILL) == NX_OK) {
        static_cast<void>(Reap());  // there is nobody to tell how it ended
    }
    if (m_handle >= 0) {
        close(m_handle);
    }
}

NxResult CNxProcess::Start(const CNxProcessStart& start) {
    if (IsToBeWaitedFor()) {
        return NX_ERROR_ALREADY_INITIALIZED;
    }
    return CatchBadAlloc([&] {
        if (!IsValid(start)) {
            return NX_ERROR_INVALID_ARG;
        }
        pid_t pid = 0;
        const NxResult result = Spawn(start, pid);
        if (result != NX_OK) {
            return result;
        }
        CDescriptor handle(OpenPidfd(pid));
        // No such process: SIGCHLD is ignored, and it has ended.
        if (!handle.IsOpen() && errno != ESRCH) {
            KillAndForget(pid);
            return NX_ERROR_FAILURE;
        }
        m_pid = pid;
        m_starter = getpid();
        m_handle = handle.Release();
        m_reaped = NX_ERROR_NOT_AVAILABLE;
        return NX_OK;
    });
}

// Waits without limit.
NxResult CNxProcess::Reap() {
    assert(IsToBeWaitedFor());
    siginfo_t info{};
    while (waitid(P_PIDFD, static_cast<id_t>(m_handle), &info, WEXITED) != 0) {
        if (errno == ECHILD) {
            break;
        }
        if (errno != EINTR) {
            return NX_ERROR_FAILURE;
        }
    }
    m_reaped = info.si_pid == 0 ? NX_ERROR_NOT_AVAILABLE : NX_OK;
    m_end = {info.si_code != CLD_EXITED, info.si_status};
    close(m_handle);
    m_handle = -1;
    return m_reaped;
}

NxResult CNxProcess::Wait(CNxProcessEnd& end, const CNxTimeValue* timeout) {
    NxResult result = m_reaped;
    if (IsToBeWaitedFor()) {
        const bool hasLimit = timeout != nullptr && *timeout != CNxTimeValue::s_tvMax();
        result = hasLimit ? WaitUntil(m_handle, *timeout) : NX_OK;
        if (result == NX_OK) {
            result = Reap();
        }
    }
    if (result == NX_OK) {
        end = m_end;
    }
    return result;
}

NxResult CNxProcess::Signal(int signo) const {
    if (!IsToBeWaitedFor()) {
        return NX_ERROR_NOT_INITIALIZED;
    }
    // ESRCH: somebody else has waited for it.
    const bool isSent = SendSignal(m_handle, signo) == 0 || errno == ESRCH;
    return isSent ? NX_OK : NX_ERROR_FAILURE;
}

NxResult CNxProcess::Stop(const CNxTimeValue& grace, CNxProcessEnd& end) {
    if (!IsToBeWaitedFor()) {
        return Wait(end);
    }
    NxResult result = Signal(SIGTERM);
    if (result == NX_OK) {
        result = Wait(end, &grace);
    }
    if (result != NX_ERROR_TIMEOUT) {
        return result;
    }
    result = Signal(SIGKILL);
    return result == NX_OK ? Wait(end) : result;
}
