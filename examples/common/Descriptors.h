// The limit of open descriptors.
#pragma once

#include <sys/resource.h>

namespace examples {

// Raises the soft limit of open descriptors to `wanted` where it is lower. False when that is not
// allowed. To be called before a reactor is opened: it has as many places as the limit says then.
inline bool AllowDescriptors(rlim_t wanted) {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return false;
    }
    if (limit.rlim_cur >= wanted) {
        return true;
    }
    limit.rlim_cur = wanted;
    return limit.rlim_max >= wanted && setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

}  // namespace examples
