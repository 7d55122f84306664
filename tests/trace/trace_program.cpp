// What a process does with tracing, for the tests of the engine: trace_program COMMAND [ARGUMENTS].
// They install it as HOME/bin/x and look at what it leaves in HOME/logs.
#include <nx/nx.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr unsigned long c_info = 21;

void TraceLine(unsigned long level, const std::string& text) {
    CNxT120Trace::instance()->trace_string(level, text.c_str(), false);
}

void TraceLines(const std::string& who, long count) {
    for (long i = 0; i < count; ++i) {
        TraceLine(c_info, who + " " + std::to_string(i));
    }
}

// One line of every level, twice, then the rest of `count` at Info; ends without an exit flush.
void Levels(long count) {
    CNxT120Trace::instance();
    refresh_trace_config();
    for (unsigned long level = 0; level < 30; ++level) {
        TraceLine(level, "level " + std::to_string(level));
    }
    TraceLine(~0UL, "no level");
    CNxT120Trace::instance()->trace_string(c_info, nullptr, true);
    INxTraceManager::Instance()->FatalTraceString(26, "always printed");
    INxTraceManager::Instance()->FatalTraceString(27, "never printed");
    TraceLines("more", count);
    std::fflush(stdout);
    _exit(0);
}

// Threads trace as fast as they can while the configuration is read `refreshes` times.
void Refresh(size_t threads, long refreshes) {
    CNxT120Trace::instance();
    std::atomic<bool> isRefreshing{true};
    std::vector<long> counts(threads);
    std::vector<std::thread> tracers;
    for (size_t t = 0; t < threads; ++t) {
        tracers.emplace_back([t, &count = counts[t], &isRefreshing] {
            for (; isRefreshing || count < 100; ++count) {
                TraceLine(c_info, std::to_string(t) + " " + std::to_string(count));
            }
        });
    }
    for (long i = 0; i < refreshes; ++i) {
        refresh_trace_config();
    }
    isRefreshing = false;
    for (size_t t = 0; t < threads; ++t) {
        tracers[t].join();
        std::printf("thread %zu traced %ld lines\n", t, counts[t]);
    }
}

// Writes to one shared file until killed; a record's text says how long it is.
[[noreturn]] void Shared(const char* path, long maxSize, long threads) {
    void* const file = T120_Attach_Trace_Dev(path, static_cast<unsigned long>(maxSize));
    const auto work = [file](long t) {
        for (unsigned int n = 0;; ++n) {
            const size_t length = n * 37 % 300;
            const std::string text = std::to_string(t) + " n=" + std::to_string(n) +
                                     " len=" + std::to_string(length) + " " +
                                     std::string(length, 'x');
            T120_Write_Trace_Dev(file, "Log", "Info", text.c_str());
        }
    };
    for (long t = 1; t < threads; ++t) {
        std::thread(work, t).detach();
    }
    work(0);
    std::abort();
}

// Needs libfaketime: the clock leaps a day on, back, and two days on.
void Leap() {
    for (const char* offset : {"+0", "+1d", "+0", "-1h", "+2d", "+0"}) {
        setenv("FAKETIME", offset, 1);
        TraceLines(std::string("at ") + offset, 100);
    }
}

// Needs faketime: traces until the day of the month has changed.
void Midnight() {
    const auto today = [] {
        const time_t now = time(nullptr);
        tm local{};
        return localtime_r(&now, &local)->tm_mday;
    };
    const int first = today();
    long count = 0;
    for (; today() == first; ++count) {
        TraceLine(c_info, "line " + std::to_string(count));
    }
    for (const unsigned long level : {c_info, 11UL}) {
        TraceLine(level, "line " + std::to_string(count++));
    }
    std::printf("lines=%ld\n", count);
}

// main returns while threads trace.
void ExitEarly() {
    for (int t = 0; t < 4; ++t) {
        std::thread([] { TraceLines("endless", 1000000000); }).detach();
    }
    TraceLines("main", 1000);
}

void Fork() {
    refresh_trace_config();
    std::thread background([] { TraceLines("parent", 3000); });
    std::vector<pid_t> children;
    for (int i = 0; i < 20; ++i) {
        children.push_back(fork());
        if (children.back() == 0) {
            TraceLine(c_info, "child " + std::to_string(getpid()));
            std::_Exit(0);
        }
    }
    for (const pid_t child : children) {
        waitpid(child, nullptr, 0);
    }
    background.join();
}

// An engine of its own, all of whose lines go to one file.
void Fixed(unsigned char shared) {
    CNxT120Trace engine("Log", g_logMapEntry, "fixed", shared);
    for (int i = 0; i < 100; ++i) {
        for (const unsigned long level : {0UL, 1UL, 11UL, c_info}) {
            engine.trace_string(level, std::to_string(i).c_str(), false);
        }
    }
}

void Cancel() {
    CNxT120Trace::instance();
    for (int i = 0; i < 200; ++i) {
        pthread_t thread{};
        const auto work = [](void* argument) -> void* {
            pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, nullptr);
            for (;;) {
                CNxT120Trace::instance()->trace_string(c_info, "cancelled", true);
                static_cast<std::atomic<bool>*>(argument)->store(true);
                pthread_testcancel();
            }
        };
        std::atomic<bool> isTracing{false};
        pthread_create(&thread, nullptr, work, &isTracing);
        while (!isTracing) {
            std::this_thread::yield();
        }
        pthread_cancel(thread);
        pthread_join(thread, nullptr);
    }
    TraceLine(c_info, "alive");
}

}  // namespace

int main(int argc, char** argv) {
    const std::string command = argc > 1 ? argv[1] : "";
    const auto number = [&](int i) { return argc > i ? std::atol(argv[i]) : 0; };
    if (command == "shared" && argc > 4) {
        Shared(argv[2], number(3), number(4));
    }
    // As a server starts.
    CNxThreadManager::Instance()->InitMainThread(argc, argv);
    std::printf("pid=%d\n", getpid());
    if (command == "levels") {
        Levels(number(2));
    } else if (command == "lines") {
        TraceLines("line", number(2));
    } else if (command == "refresh") {
        Refresh(static_cast<size_t>(number(2)), number(3));
    } else if (command == "leap") {
        Leap();
    } else if (command == "midnight") {
        Midnight();
    } else if (command == "fixed") {
        Fixed(static_cast<unsigned char>(number(2)));
    } else if (command == "exit") {
        ExitEarly();
    } else if (command == "fork") {
        Fork();
    } else if (command == "cancel") {
        Cancel();
    } else {
        std::fprintf(stderr, "%s: no such command\n", command.c_str());
        return 2;
    }
    return 0;
}
