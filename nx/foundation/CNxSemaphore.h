// A counting semaphore, private to the process.
#pragma once

#include <nx/foundation/CNxTimeValue.h>
#include <nx/foundation/NxResult.h>
#include <semaphore.h>

// Over an unnamed POSIX semaphore (sem_init(3)). Any thread may call any operation; a thread that
// has returned from Lock may destroy the object even while the UnLock that let it go is still on
// its way out.
class CNxSemaphore {
public:
    // `initialCount` below 0 counts as 0. Name and maximum are ignored: the count has no bound but
    // the system's own.
    explicit CNxSemaphore(long initialCount = 0, const char* name = nullptr, long maximum = 0);
    virtual ~CNxSemaphore();

    CNxSemaphore(const CNxSemaphore&) = delete;
    CNxSemaphore& operator=(const CNxSemaphore&) = delete;

    // Waits until the count is above 0 and takes one. NX_OK, or NX_ERROR_FAILURE when sem_wait
    // fails, which includes a signal handler that interrupted it.
    [[nodiscard]] NxResult Lock();

    // The same until a point of the MONOTONIC clock (CNxTimeValue::GetMonotonicTime); s_tvMax()
    // waits without limit. Also NX_ERROR_TIMEOUT when none could be taken by then.
    [[nodiscard]] NxResult LockUntil(const CNxTimeValue& deadline);

    // Gives one back. NX_OK, or NX_ERROR_FAILURE when sem_post fails (the count is at its limit).
    NxResult UnLock();

    // Gives `n` back, nothing for 0 or less. NX_OK, or NX_ERROR_FAILURE at the first that fails;
    // those before it stand.
    NxResult PostN(long n);

private:
    sem_t m_semaphore;
};
