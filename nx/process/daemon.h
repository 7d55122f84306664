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

// The same, but whoever starts the daemon learns whether its start has succeeded: the process that
// was called waits, and ends with status 0 when the daemon calls cnx_daemon_ready, with 1 when the
// daemon has ended without. Standard output and error stay until then, so that what is wrong is
// read where it was started; one that the process was started without is the null device. A daemon
// that does neither keeps it waiting, and so does a child process that it forks before and leaves
// behind.
[[nodiscard]] NxResult cnx_daemonise_until_ready();

// What the starter waits for; standard output and error, flushed, lead to the null device from here
// on. CNxServer::Run calls it. One thread; nothing happens when called again, and in a process that
// nobody waits for.
void cnx_daemon_ready();
