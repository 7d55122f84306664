#include <fcntl.h>
#include <nx/foundation/high_descriptor.h>
#include <nx/foundation/standard_streams.h>
#include <nx/trace/log.h>
#include <strings.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

const CNxLogLevelName cnx_log_levels[10] = {
    {"QUIET", CNX_LOG_QUIET},  {"FATAL", CNX_LOG_FATAL},     {"ERROR", CNX_LOG_ERROR},
    {"INFO", CNX_LOG_INFO},    {"VERBOSE", CNX_LOG_VERBOSE}, {"DEBUG", CNX_LOG_DEBUG},
    {"DEBUG1", CNX_LOG_DEBUG}, {"DEBUG2", CNX_LOG_DEBUG2},   {"DEBUG3", CNX_LOG_DEBUG3},
    {nullptr, CNX_LOG_QUIET},
};

std::atomic<int> cnx_log_level{CNX_LOG_INFO};
std::atomic<int> cnx_log_stderr_fd{STDERR_FILENO};
std::atomic<const char*> cnx_argv0{nullptr};

namespace {

constexpr size_t MESSAGE_SIZE = 1024;

bool IsLevel(int level) {
    return level >= CNX_LOG_QUIET && level <= CNX_LOG_DEBUG3;
}

const char* Prefix(int level) {
    switch (level) {
        case CNX_LOG_FATAL:
            return "fatal";
        case CNX_LOG_ERROR:
            return "error";
        case CNX_LOG_DEBUG:
            return "debug1";
        case CNX_LOG_DEBUG2:
            return "debug2";
        case CNX_LOG_DEBUG3:
            return "debug3";
        default:
            return "internal error";
    }
}

// Takes a conversion that the end of the text cuts in two off the format.
void DropCutConversion(char* format) {
    for (char* percent = std::strchr(format, '%'); percent != nullptr;) {
        char* const conversion =
            percent + 1 + std::strspn(percent + 1, "-+ #'I0123456789.*$hlLqjzt");
        if (*conversion == '\0') {
            *percent = '\0';
            return;
        }
        percent = std::strchr(conversion + 1, '%');
    }
}

}  // namespace

void log_init(const char* argv0, CNxLogLevel level, int /*unused*/) {
    cnx_argv0 = argv0;
    if (argv0 != nullptr && IsLevel(level)) {
        cnx_log_level = level;
    }
}

int log_change_level(CNxLogLevel level) {
    if (cnx_argv0.load() == nullptr) {
        return 0;
    }
    if (!IsLevel(level)) {
        return -1;
    }
    cnx_log_level = level;
    return 0;
}

CNxLogLevel get_log_level() {
    return static_cast<CNxLogLevel>(cnx_log_level.load(std::memory_order_relaxed));
}

bool log_is_on_stderr() {
    return cnx_log_stderr_fd == STDERR_FILENO;
}

int log_level_number(const char* name) {
    for (const CNxLogLevelName* entry = cnx_log_levels; name != nullptr && entry->name != nullptr;
         ++entry) {
        if (strcasecmp(entry->name, name) == 0) {
            return entry->level;
        }
    }
    return -1;
}

const char* log_level_name(CNxLogLevel level) {
    for (const CNxLogLevelName& entry : cnx_log_levels) {
        if (entry.level == level) {
            return entry.name;
        }
    }
    return nullptr;
}

int log_redirect_stderr_to(const char* path) {
    const int fd = ToHighDescriptor(open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    if (fd < 0) {
        PrintToStderr("Couldn't open logfile %s: %s\n", path, std::strerror(errno));
        std::exit(1);
    }
    cnx_log_stderr_fd = fd;
    return fd;
}

void do_log(CNxLogLevel level, const char* fmt, va_list args) {
    if (level > cnx_log_level.load(std::memory_order_relaxed) || fmt == nullptr) {
        return;
    }
    const int savedErrno = errno;
    char format[MESSAGE_SIZE];
    if (level != CNX_LOG_INFO && level != CNX_LOG_VERBOSE) {
        const int length = std::snprintf(format, sizeof(format), "%s: %s", Prefix(level), fmt);
        if (length >= static_cast<int>(sizeof(format))) {
            DropCutConversion(format);
        }
        fmt = format;
    }
    char message[MESSAGE_SIZE];
    std::vsnprintf(message, sizeof(message), fmt, args);
    PrintToStdout("%s\n", message);
    errno = savedErrno;
}

void do_log2(CNxLogLevel level, const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    do_log(level, fmt, args);
    va_end(args);
}

void error(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    do_log(CNX_LOG_ERROR, fmt, args);
    va_end(args);
}

void logit(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    do_log(CNX_LOG_INFO, fmt, args);
    va_end(args);
}

void verbose(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    do_log(CNX_LOG_VERBOSE, fmt, args);
    va_end(args);
}

void debug(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    do_log(CNX_LOG_DEBUG, fmt, args);
    va_end(args);
}

void debug2(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    do_log(CNX_LOG_DEBUG2, fmt, args);
    va_end(args);
}

void debug3(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    do_log(CNX_LOG_DEBUG3, fmt, args);
    va_end(args);
}

void logdie(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    do_log(CNX_LOG_INFO, fmt, args);
    va_end(args);
}

void sigdie(const char* /*fmt*/, ...) {
    _exit(1);
}
