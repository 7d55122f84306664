#include <nx/foundation/CCallOut.h>
#include <nx/foundation/standard_streams.h>

#include <cstdlib>

void EndByException(const char* callback, const char* what) noexcept {
    PrintToStderr("nxbase: an exception left %s: %s\n", callback, what);
    std::abort();
}
