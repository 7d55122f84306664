// Turning the process into a daemon.
#pragma once

#include <nx/foundation/NxResult.h>

// Goes on as a daemon: in a session of its own without a terminal, in the root folder, with the
// null device as standard streams, as another process than the one that was called. That one ends
// with status 0 as soon as the daemon has got so far; atexit handlers and destructors run in the
// daemon only. Other descriptors stay open, signals and umask as they are. To be called first in
// main(): what belongs to a process (locks of CNxProcessLock, child processes, threads) stays
// behind.
//
// NX_OK, in the daemon. Otherwise in the process that called, with nothing changed:
// NX_ERROR_UNEXPECTED when it has more than one thread, since only this one would live on;
// NX_ERROR_FAILURE with errno.
[[nodiscard]] NxResult cnx_daemonise();
