// For set-up that cannot fail in a test that makes sense.
#pragma once

#include <nx/foundation/NxResult.h>

#include <cstdio>
#include <cstdlib>

inline void Must(NxResult result) {
    if (result != NX_OK) {
        std::fprintf(stderr, "set-up failed with %u\n", result);
        std::abort();
    }
}
