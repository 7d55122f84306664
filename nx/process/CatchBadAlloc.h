// Inside the library only: memory that runs out as a result code.
#pragma once

#include <nx/foundation/NxResult.h>

#include <cerrno>
#include <new>

// The result of `call`; NX_ERROR_FAILURE with errno ENOMEM when it throws std::bad_alloc.
template <class Call>
[[nodiscard]] NxResult CatchBadAlloc(const Call& call) {
    try {
        return call();
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return NX_ERROR_FAILURE;
    }
}
