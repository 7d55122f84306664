// What a process does with tracing, for the tests of the engine: trace_program COMMAND [ARGUMENTS].
// They install it as HOME/bin/x and look at what it leaves in HOME/logs.
#include <nx/nx.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <map>
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

// One line of every level, then the rest of `count` at Info; ends without an exit flush.
void Levels(long count) {
    CNxT120Trace::instance();
    refresh_trace_config();
    for (unsigned long level = 0; level < 30; ++level) {
        TraceLine(level, "level " + std::to_string(level));
    }
    INxTraceManager::Instance()->FatalTraceString(26, "always printed");
    TraceLines("more", count);
    std::fflush(stdout);
    _exit(0);
}

// Threads trace as fast as they can while the configuration is read `refreshes` times.
void Refresh(long threads, long refreshes) {
    CNxT120Trace::instance();
    std::atomic<bool> isRefreshing{true};
    std::vector<std::thread> tracers;
    for (long t = 0; t < threads; ++t) {
        tracers.emplace_back([who = std::to_string(t) + " ", &isRefreshing] {
            for (long n = 0; isRefreshing || n < 100; ++n) {
                TraceLine(c_info, who + std::to_string(n));
            }
            TraceLine(c_info, who + "end");
        });
    }
    for (long i = 0; i < refreshes; ++i) {
        refresh_trace_config();
    }
    isRefreshing = false;
    for (std::thread& tracer : tracers) {
        tracer.join();
    }
}

// Writes to one shared file until killed; a record says how long it is.
[[noreturn]] void Shared(const char* path, long maxSize, long threads) {
    void* const file = T120_Attach_Trace_Dev(path, static_cast<unsigned long>(maxSize));
    const auto work = [file] {
        for (size_t n = 0;; n = (n + 37) % 300) {
            const std::string text = std::to_string(n) + " " + std::string(n, 'x');
            T120_Write_Trace_Dev(file, "Log", "Info", text.c_str());
        }
    };
    for (long t = 1; t < threads; ++t) {
        std::thread(work).detach();
    }
    work();
    std::abort();
}

// Takes away what is in the place of the log folder.
void Repair() {
    TraceLines("lost", 3);
    std::remove((std::string(g_strTracehome1) + "/logs").c_str());
    refresh_trace_config();
    TraceLines("kept", 3);
}

// Fills files while the configuration is away, then again without a descriptor to open one.
void Starve() {
    const std::string moved = std::string(g_strConfigfile1) + ".new";
    TraceLines("before", 1);
    std::rename(g_strConfigfile1, moved.c_str());
    TraceLines("missing", 25);
    refresh_trace_config();
    TraceLines("missing", 25);
    std::rename(moved.c_str(), g_strConfigfile1);
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none = {0, limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    TraceLines("starving", 50);
    setrlimit(RLIMIT_NOFILE, &limit);
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    TraceLines("after", 50);
}

// Needs libfaketime: the clock leaps a day on, back, and two days on.
void Leap() {
    for (const char* offset : {"+0", "+1d", "+0", "-1h", "+2d", "+0"}) {
        setenv("FAKETIME", offset, 1);
        TraceLines(std::string("at ") + offset, 100);
    }
}

// Needs faketime, and to start in the second before midnight.
void Midnight() {
    long count = 0;
    for (const time_t start = time(nullptr); time(nullptr) == start; ++count) {
        TraceLine(c_info, "line " + std::to_string(count));
    }
    TraceLine(c_info, "line " + std::to_string(count++));
    TraceLine(11, "line " + std::to_string(count++));
    std::printf("lines=%ld\n", count);
}

}  // namespace

int main(int argc, char** argv) {
    const std::string command = argc > 1 ? argv[1] : "";
    const auto number = [&](int i) { return argc > i ? std::atol(argv[i]) : 0; };
    if (command == "shared" && argc > 4) {
        Shared(argv[2], number(3), number(4));
    }
    // As a server starts.
    if (CNxThreadManager::Instance()->InitMainThread(argc, argv) != NX_OK) {
        return 1;
    }
    if (command != "quiet") {
        std::printf("pid=%d\n", getpid());
    }
    const std::map<std::string, std::function<void()>> commands = {
        {"levels", [&] { Levels(number(2)); }},
        {"quiet", [&] { TraceLines("line", number(2)); }},
        {"lines", [&] { TraceLines("line", number(2)); }},
        {"refresh", [&] { Refresh(number(2), number(3)); }},
        {"leap", Leap},
        {"repair", Repair},
        {"starve", Starve},
        {"midnight", Midnight}};
    commands.at(command)();
}
