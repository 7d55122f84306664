// What a process does with tracing, for the tests of the engine: trace_program COMMAND [ARGUMENTS].
// They install it as HOME/bin/x and look at what it leaves in HOME/logs.
#include <nx/nx.h>
#include <sys/resource.h>
#include <sys/wait.h>
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

void TraceLine(unsigned long level, const std::string& text) {
    NxTrace(level, text);
}

void TraceLines(const std::string& who, long count) {
    for (long i = 0; i < count; ++i) {
        TraceLine(NX_TRACE_INFO, who + " " + std::to_string(i));
    }
}

// One line of every level.
void Levels() {
    for (unsigned long level = 0; level < 30; ++level) {
        TraceLine(level, "level " + std::to_string(level));
    }
    INxTraceManager::Instance()->FatalTraceString(26, "always printed");
}

// Threads trace as fast as they can, and the configuration is read all the time.
void Refresh(long threads, long lines) {
    CNxT120Trace::instance();
    std::atomic<long> tracing{threads};
    std::vector<std::thread> tracers;
    for (long t = 0; t < threads; ++t) {
        tracers.emplace_back([who = std::to_string(t), lines, &tracing] {
            TraceLines(who, lines);
            --tracing;
        });
    }
    while (tracing > 0) {
        refresh_trace_config();
    }
    for (std::thread& tracer : tracers) {
        tracer.join();
    }
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

void TraceId() {
    TraceLine(NX_TRACE_INFO, "id " + std::to_string(gettid()));
}

void TraceIds() {
    TraceId();
    std::thread(TraceId).join();
    std::fflush(stdout);
    if (fork() == 0) {
        TraceId();
        _exit(0);
    }
    wait(nullptr);
}

// Needs libfaketime: the clock leaps a day on and back.
void Leap() {
    for (const char* day : {"01", "02", "01"}) {
        setenv("FAKETIME", (std::string("2026-05-") + day + " 12:00:00").c_str(), 1);
        TraceLines(day, 2);
    }
}

}  // namespace

int main(int argc, char** argv) {
    const std::string command = argc > 1 ? argv[1] : "";
    const auto number = [&](int i) { return argc > i ? std::atol(argv[i]) : 0; };
    if (const char* const target = std::getenv("OWN_LINES")) {
        CNxOwnLines::Send(static_cast<CNxOwnLines::ETarget>(std::atoi(target)));
    }
    // As a server starts.
    if (CNxThreadManager::Instance()->InitMainThread(argc, argv) != NX_OK) {
        return 1;
    }
    if (command != "quiet") {
        std::printf("pid=%d\n", getpid());
    }
    const std::map<std::string, std::function<void()>> commands = {
        {"levels", Levels},
        {"quiet", [&] { TraceLines("line", number(2)); }},
        {"lines", [&] { TraceLines("line", number(2)); }},
        {"refresh", [&] { Refresh(number(2), number(3)); }},
        {"leap", Leap},
        {"ids", TraceIds},
        {"starve", Starve}};
    commands.at(command)();
}
