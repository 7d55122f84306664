// Inside the library only: errno for those who get NX_ERROR_FAILURE.
#pragma once

#include <nx/foundation/NxResult.h>

#include <cerrno>

// From here to the end of the scope: what is cleaned up meanwhile, and fails, does not show.
class CKeptErrno {
public:
    CKeptErrno() = default;
    ~CKeptErrno() { errno = m_errno; }
    CKeptErrno(const CKeptErrno&) = delete;
    CKeptErrno& operator=(const CKeptErrno&) = delete;

private:
    const int m_errno = errno;
};

// Of functions that return their error instead of setting errno, as those of pthreads do.
[[nodiscard]] inline NxResult ResultOfError(int error) {
    if (error == 0) {
        return NX_OK;
    }
    errno = error;
    return NX_ERROR_FAILURE;
}
