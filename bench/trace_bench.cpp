// What tracing costs: a line of a switched-off level beside the loads it cannot do without, and a
// line to a file beside the same bytes written by write(2) and fwrite(3).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <nx/nx.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>

namespace {

constexpr char c_text[] = "session 4711: 42 bytes received, 1 message, queue 0";
constexpr char c_path[] = "/tmp/nx_trace_bench.log";

void PeerEmptyLoop(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::ClobberMemory();
    }
}
BENCHMARK(PeerEmptyLoop);

void PeerTwoRelaxedLoads(benchmark::State& state) {
    std::atomic<bool> enabled{true};
    std::atomic<unsigned long> level{0};
    for (auto _ : state) {
        if (enabled.load(std::memory_order_relaxed) && level.load(std::memory_order_relaxed) != 0) {
            std::puts(c_text);
        }
        benchmark::ClobberMemory();
    }
}
BENCHMARK(PeerTwoRelaxedLoads);

void SwitchedOffLevel(benchmark::State& state) {
    // Without a configuration file the master switch is then on.
    refresh_trace_config();
    CNxT120Trace* const trace = CNxT120Trace::instance();
    for (auto _ : state) {
        trace->trace_string(26, c_text, false);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(SwitchedOffLevel);

// As long as the record that LineToAFile writes.
const char* Record() {
    static char s_record[256];
    std::snprintf(s_record, sizeof(s_record), "[11/21/2026 10:30:00.000 pid=%d tid=%d] Info:%s\n",
                  getpid(), static_cast<int>(pthread_self()), c_text);
    return s_record;
}

void PeerRawWrite(benchmark::State& state) {
    const int fd = open(c_path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const char* const record = Record();
    const size_t length = std::strlen(record);
    for (auto _ : state) {
        benchmark::DoNotOptimize(write(fd, record, length));
    }
    close(fd);
    unlink(c_path);
}
BENCHMARK(PeerRawWrite);

// Flushed after every `range` lines.
void PeerFwrite(benchmark::State& state) {
    FILE* const file = std::fopen(c_path, "we");
    const char* const record = Record();
    const size_t length = std::strlen(record);
    long lines = 0;
    for (auto _ : state) {
        std::fwrite(record, 1, length, file);
        if (++lines % state.range(0) == 0) {
            std::fflush(file);
        }
    }
    std::fclose(file);
    unlink(c_path);
}
BENCHMARK(PeerFwrite)->Arg(1)->Arg(20)->Arg(200);

void LineToAFile(benchmark::State& state) {
    void* const file = T120_Open_Trace_Dev(c_path, 0, 0, 1);
    T120_Refresh_Settings(0, static_cast<int>(state.range(0)));
    for (auto _ : state) {
        T120_Write_Trace_Dev(file, "Log", "Info", c_text);
    }
    T120_Close_Trace_Dev(file);
    unlink(c_path);
}
BENCHMARK(LineToAFile)->Arg(1)->Arg(20)->Arg(200);

void LineToASharedFile(benchmark::State& state) {
    void* const file = T120_Open_Trace_Dev(c_path, 0, 1, 1);
    for (auto _ : state) {
        T120_Write_Trace_Dev(file, "Log", "Info", c_text);
    }
    T120_Close_Trace_Dev(file);
    unlink(c_path);
}
BENCHMARK(LineToASharedFile);

}  // namespace

BENCHMARK_MAIN();
