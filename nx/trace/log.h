// A small console log with levels, independent of the trace engine, whose files NxTrace
// (nx/trace/NxTrace.h) writes to. Everything goes to standard output, one line a message; messages
// of more than 1023 bytes are cut.
//
// Not in nx/nx.h: its functions have everyday names (error, debug, verbose), so only the units that
// log include it.
//
// Any thread may call any function; a line is printed by one call of printf(3).
#pragma once

#include <atomic>
#include <cstdarg>

enum CNxLogLevel : int {
    CNX_LOG_QUIET = 0,
    CNX_LOG_FATAL = 1,
    CNX_LOG_ERROR = 2,
    CNX_LOG_INFO = 3,
    CNX_LOG_VERBOSE = 4,
    CNX_LOG_DEBUG = 5,
    CNX_LOG_DEBUG2 = 6,
    CNX_LOG_DEBUG3 = 7
};

struct CNxLogLevelName {
    const char* name;
    CNxLogLevel level;
};

// The names that log_level_number knows, ended by a null name. "DEBUG1" is another "DEBUG".
extern const CNxLogLevelName cnx_log_levels[10];

// Messages above it are not printed. INFO at first.
extern std::atomic<int> cnx_log_level;
// What log_redirect_stderr_to opened, 2 at first.
extern std::atomic<int> cnx_log_stderr_fd;
// The name given to log_init, null at first. The caller keeps it.
extern std::atomic<const char*> cnx_argv0;

// Stores the program's name and, unless that is null or the level is none, the threshold. The last
// argument is not used.
void log_init(const char* argv0, CNxLogLevel level, int unused);

// Sets the threshold. BEFORE log_init HAS STORED A NAME NOTHING HAPPENS, and it returns 0. Else 0,
// or -1 for a level that is none.
int log_change_level(CNxLogLevel level);

CNxLogLevel get_log_level();
bool log_is_on_stderr();

// The level of that name, in any case of letters; -1 for null or an unknown name.
int log_level_number(const char* name);

// "QUIET", "FATAL", "ERROR", "INFO", "VERBOSE", "DEBUG", "DEBUG2", "DEBUG3"; null for no level.
const char* log_level_name(CNxLogLevel level);

// Opens the file for appending, made with mode 0600, and stores and returns the descriptor. ONLY
// log_is_on_stderr looks at it: messages go to standard output as before. When it cannot be opened
// "Couldn't open logfile PATH: REASON" goes to standard error and the process ends with exit(1).
int log_redirect_stderr_to(const char* path);

// What they print begins with "error: ", "debug1: ", "debug2: ", "debug3: "; of logit, verbose and
// logdie with nothing.
[[gnu::format(printf, 1, 2)]] void error(const char* fmt, ...);
[[gnu::format(printf, 1, 2)]] void logit(const char* fmt, ...);
[[gnu::format(printf, 1, 2)]] void verbose(const char* fmt, ...);
[[gnu::format(printf, 1, 2)]] void debug(const char* fmt, ...);
[[gnu::format(printf, 1, 2)]] void debug2(const char* fmt, ...);
[[gnu::format(printf, 1, 2)]] void debug3(const char* fmt, ...);
// At level INFO. RETURNS, in spite of its name.
[[gnu::format(printf, 1, 2)]] void logdie(const char* fmt, ...);

// Prints nothing and ends the process at once with _exit(1).
[[noreturn, gnu::format(printf, 1, 2)]] void sigdie(const char* fmt, ...);

// At any level: FATAL begins with "fatal: ", what is no level (and QUIET) with "internal error: ".
// errno stays as it is. Nothing happens for a null format. The prefix and the format together count
// up to 1023 bytes; a conversion that this would cut in two is left out.
[[gnu::format(printf, 2, 3)]] void do_log2(CNxLogLevel level, const char* fmt, ...);
[[gnu::format(printf, 2, 0)]] void do_log(CNxLogLevel level, const char* fmt, va_list args);
