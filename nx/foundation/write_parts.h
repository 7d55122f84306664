// Inside the library only: writes that are interrupted, or take a part only, go on.
#pragma once

#include <sys/types.h>

#include <cstddef>

struct iovec;

// Writes the parts one behind the other at that place of the file (pwritev(2)) and uses them up.
// Returns how many bytes reached the file; fewer than given only when the system refuses more, with
// its errno.
[[nodiscard]] size_t WriteParts(int fd, iovec* parts, int count, off_t offset);
