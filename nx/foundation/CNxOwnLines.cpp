#include <nx/foundation/CKeptErrno.h>
#include <nx/foundation/CNxMutexOverFork.h>
#include <nx/foundation/CNxOwnLines.h>
#include <nx/foundation/own_lines.h>
#include <nx/foundation/standard_streams.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>
#include <string_view>

namespace {

using CTracer = void (*)(const char*);
using CPrinter = void (*)(const char*, ...);

constexpr size_t LINE_SIZE = PIPE_BUF + 1;

std::atomic<CNxOwnLines::ETarget> s_target{CNxOwnLines::TO_STREAMS};
std::atomic<CTracer> s_tracer{nullptr};

// What waits for the tracer, each line with its line end.
struct CWaiting {
    CNxMutexOverFork m_mutex;
    char m_text[4096] NX_GUARDED_BY(m_mutex) = "";
    size_t m_length NX_GUARDED_BY(m_mutex) = 0;
};

// Never destroyed: the last lines come from the tear-down.
CWaiting& Waiting() {
    alignas(CWaiting) static char s_place[sizeof(CWaiting)];
    static auto* const s_waiting = new (s_place) CWaiting;
    return *s_waiting;
}

// False when there is a tracer by now.
bool Keep(std::string_view line) {
    CWaiting& waiting = Waiting();
    CNxMutexGuardT<CNxMutexThread> guard(waiting.m_mutex);
    if (s_tracer.load() != nullptr) {
        return false;
    }
    if (line.size() < sizeof(waiting.m_text) - waiting.m_length) {
        line.copy(waiting.m_text + waiting.m_length, line.size());
        waiting.m_length += line.size();
    }
    return true;
}

// Writes over the line ends.
void TraceLines(CTracer tracer, char* lines) {
    while (*lines != '\0') {
        char* const end = lines + std::strcspn(lines, "\n");
        const bool isLast = *end == '\0';
        *end = '\0';
        tracer(lines);
        lines = isLast ? end : end + 1;
    }
}

void Trace(char* line) {
    const CTracer tracer = s_tracer.load();
    if (tracer != nullptr || !Keep(line)) {
        TraceLines(tracer != nullptr ? tracer : s_tracer.load(), line);
    }
}

[[gnu::format(printf, 2, 0)]] void Say(CPrinter ownStream, const char* format, va_list args) {
    const CKeptErrno keptErrno;
    const CNxOwnLines::ETarget target = s_target.load(std::memory_order_relaxed);
    if (target == CNxOwnLines::NOWHERE) {
        return;
    }
    char line[LINE_SIZE];
    if (std::vsnprintf(line, sizeof(line), format, args) < 0) {
        return;
    }
    switch (target) {
        case CNxOwnLines::TO_TRACE:
            Trace(line);
            break;
        case CNxOwnLines::TO_STDERR:
            PrintToStderr("%s", line);
            break;
        default:
            ownStream("%s", line);
    }
}

// Whether the text is new; false when the table is full.
bool IsFirst(const char* text) {
    static std::array<std::atomic<size_t>, 64> s_known{};
    // 0 is a free place.
    const size_t hash = std::max<size_t>(std::hash<std::string_view>()(text), 1);
    for (std::atomic<size_t>& known : s_known) {
        size_t present = 0;
        if (known.compare_exchange_strong(present, hash)) {
            return true;
        }
        if (present == hash) {
            return false;
        }
    }
    return false;
}

}  // namespace

void CNxOwnLines::Send(ETarget target) {
    s_target.store(target, std::memory_order_relaxed);
}

CNxOwnLines::ETarget CNxOwnLines::GetTarget() {
    return s_target.load(std::memory_order_relaxed);
}

void SayOnStdout(const char* format, ...) {
    va_list args;
    va_start(args, format);
    Say(&PrintToStdout, format, args);
    va_end(args);
}

void SayOnStderr(const char* format, ...) {
    va_list args;
    va_start(args, format);
    Say(&PrintToStderr, format, args);
    va_end(args);
}

void ComplainOnce(const char* action, const char* path, const char* problem) {
    if (CNxOwnLines::GetTarget() != CNxOwnLines::NOWHERE && IsFirst(path)) {
        PrintToStderr("nxbase: cannot %s %s: %s\n", action, path, problem);
    }
}

void SetLineTracer(CTracer tracer) {
    CWaiting& waiting = Waiting();
    char lines[sizeof(waiting.m_text)];
    {
        CNxMutexGuardT<CNxMutexThread> guard(waiting.m_mutex);
        s_tracer.store(tracer);
        lines[std::string_view(waiting.m_text, waiting.m_length).copy(lines, sizeof(lines) - 1)] =
            '\0';
        waiting.m_length = 0;
    }
    TraceLines(tracer, lines);
}
