#include <nx/foundation/CCallOut.h>

#include <cstdio>
#include <cstdlib>

void EndByException(const char* callback, const char* what) noexcept {
    std::fprintf(stderr, "nxbase: an exception left %s: %s\n", callback, what);
    std::abort();
}
