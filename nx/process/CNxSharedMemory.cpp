#include <nx/foundation/CKeptErrno.h>
#include <nx/process/CNxSharedMemory.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <iterator>

namespace {

constexpr unsigned short c_lock = 0;
constexpr unsigned short c_inside = 1;
constexpr int c_semaphores = 2;

// Each array takes effect as a whole or not at all.
constexpr sembuf c_enter[] = {{c_lock, 0, 0}, {c_lock, 1, SEM_UNDO}, {c_inside, 1, 0}};
constexpr sembuf c_leave[] = {{c_inside, -1, IPC_NOWAIT}, {c_lock, -1, SEM_UNDO | IPC_NOWAIT}};

NxResult ResultOfErrno() {
    const bool isRemoved = errno == EIDRM || errno == EINVAL;
    return isRemoved ? NX_ERROR_NOT_FOUND : NX_ERROR_FAILURE;
}

timespec GetRest(const CNxTimeValue& deadline) {
    const CNxTimeValue rest = deadline - CNxTimeValue::GetMonotonicTime();
    return rest > CNxTimeValue::s_tvZero() ? timespec{rest.GetSec(), rest.GetUsec() * 1000}
                                           : timespec{};
}

bool Enter(int semaphores) {
    int result = 0;
    do {
        result = semop(semaphores, const_cast<sembuf*>(c_enter), std::size(c_enter));
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

// A signal handler that interrupts it, however often, makes the wait no longer.
bool EnterWithin(int semaphores, const CNxTimeValue& timeout) {
    const CNxTimeValue deadline = CNxTimeValue::GetMonotonicTime() + timeout;
    int result = 0;
    do {
        const timespec rest = GetRest(deadline);
        result = semtimedop(semaphores, const_cast<sembuf*>(c_enter), std::size(c_enter), &rest);
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

// Whoever is counted besides the one that holds the lock has died.
bool HasLostOne(int semaphores) {
    const int inside = semctl(semaphores, c_inside, GETVAL);
    return inside > 1 && semctl(semaphores, c_inside, SETVAL, 1) == 0;
}

// Makes the segment or finds it; -1 with errno.
int GetSegment(key_t key, size_t size, int flags) {
    for (;;) {
        const int made = (flags & IPC_CREAT) != 0 ? shmget(key, size, flags | IPC_EXCL) : -1;
        if (made >= 0 || ((flags & IPC_CREAT) != 0 && errno != EEXIST)) {
            return made;
        }
        // Of any size: the caller compares.
        const int found = shmget(key, 0, 0);
        if (found >= 0 || errno != ENOENT || (flags & IPC_CREAT) == 0) {
            return found;
        }
    }
}

void RemoveIfJustMade(int segment, const shmid_ds& status) {
    const bool wasNeverAttached = status.shm_lpid == 0;
    if (status.shm_cpid == getpid() && wasNeverAttached) {
        const CKeptErrno keptErrno;
        shmctl(segment, IPC_RMID, nullptr);
    }
}

}  // namespace

NxResult CNxSharedMemory::OpenSegment(key_t key, size_t size, int flags) {
    if (m_data != nullptr) {
        return NX_ERROR_ALREADY_INITIALIZED;
    }
    if (size == 0 || key == IPC_PRIVATE) {
        return NX_ERROR_INVALID_ARG;
    }
    m_size = 0;
    const int segment = GetSegment(key, size, flags);
    shmid_ds status{};
    if (segment < 0 || shmctl(segment, IPC_STAT, &status) != 0) {
        return errno == ENOENT ? NX_ERROR_NOT_FOUND : NX_ERROR_FAILURE;
    }
    m_size = status.shm_segsz;
    if (m_size != size) {
        return NX_ERROR_UNEXPECTED;
    }
    // Also when attaching: who made the segment may be about to make them.
    m_semaphores =
        semget(key, c_semaphores, IPC_CREAT | static_cast<int>(status.shm_perm.mode & 0777));
    void* const data = m_semaphores < 0 ? nullptr : shmat(segment, nullptr, 0);
    if (data == nullptr || reinterpret_cast<std::intptr_t>(data) == -1) {
        RemoveIfJustMade(segment, status);
        return NX_ERROR_FAILURE;
    }
    m_data = data;
    return NX_OK;
}

NxResult CNxSharedMemory::Open(key_t key, size_t size, mode_t mode) {
    return OpenSegment(key, size, IPC_CREAT | static_cast<int>(mode & 0777));
}

NxResult CNxSharedMemory::Attach(key_t key, size_t size) {
    return OpenSegment(key, size, 0);
}

void CNxSharedMemory::Close() {
    if (m_data == nullptr) {
        return;
    }
    UnLock();  // refused, as a rule: it is not held
    const int result = shmdt(m_data);
    assert(result == 0);
    static_cast<void>(result);  // in builds without assertions
    m_data = nullptr;
    m_size = 0;
}

NxResult CNxSharedMemory::Lock(const CNxTimeValue* timeout) {
    if (m_data == nullptr) {
        return NX_ERROR_NOT_INITIALIZED;
    }
    const bool hasLimit = timeout != nullptr && *timeout != CNxTimeValue::s_tvMax();
    if (!(hasLimit ? EnterWithin(m_semaphores, *timeout) : Enter(m_semaphores))) {
        return errno == EAGAIN ? NX_ERROR_TIMEOUT : ResultOfErrno();
    }
    m_holder = getpid();
    return HasLostOne(m_semaphores) ? NX_ERROR_PARTIAL_DATA : NX_OK;
}

NxResult CNxSharedMemory::UnLock() {
    pid_t self = getpid();
    if (!m_holder.compare_exchange_strong(self, 0)) {
        return NX_ERROR_NOT_INITIALIZED;
    }
    const int result = semop(m_semaphores, const_cast<sembuf*>(c_leave), std::size(c_leave));
    return result == 0 ? NX_OK : ResultOfErrno();
}

NxResult CNxSharedMemory::Remove(key_t key) {
    if (key == IPC_PRIVATE) {
        return NX_ERROR_INVALID_ARG;
    }
    const int segment = shmget(key, 0, 0);
    const int semaphores = semget(key, 0, 0);
    if (segment < 0 && semaphores < 0) {
        return errno == ENOENT ? NX_ERROR_NOT_FOUND : NX_ERROR_FAILURE;
    }
    const bool isGone = (segment < 0 || shmctl(segment, IPC_RMID, nullptr) == 0) &&
                        (semaphores < 0 || semctl(semaphores, 0, IPC_RMID) == 0);
    return isGone ? NX_OK : NX_ERROR_FAILURE;
}
