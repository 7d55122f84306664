// A program that tells what trace_setting_init found; the test copies it to different places.
#include <nx/process/process_path.h>
#include <nx/process/trace_setting.h>

#include <cstdio>
#include <thread>
#include <vector>

int main() {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([] { trace_setting_init(); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    trace_setting_init();
    std::printf("process %s\n", get_process_name());
}
