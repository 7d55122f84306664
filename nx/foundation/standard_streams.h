// Inside the library only: prints the library's own lines to standard output and error, which
// belong to the process and lead wherever it was started to.
#pragma once

// Any thread may call, but no signal handler. errno stays as it is; a thread is not cancelled
// inside.
//
// A LINE MAY BE LOST, because nothing may happen to the process on its account: a reader that has
// gone raises no SIGPIPE, and one that stalls is waited for 100 ms at most; from then on lines are
// dropped without waiting until the stream takes one again. A line is at most 4096 bytes, the rest
// is cut. It is written at once; what the program itself has printed to stdout goes before it.
[[gnu::format(printf, 1, 2)]] void PrintToStdout(const char* format, ...);
[[gnu::format(printf, 1, 2)]] void PrintToStderr(const char* format, ...);
