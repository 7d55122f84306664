// A program that tells what trace_setting_init found; the test copies it to different places.
#include <nx/process/process_path.h>
#include <nx/process/trace_setting.h>

#include <cstdio>
#include <thread>

// show_paths [CONFIG_DIR LOG_DIR]
int main(int argc, char** argv) {
    if (argc > 2 && (set_config_dir(argv[1]) != NX_OK || set_log_dir(argv[2]) != NX_OK)) {
        return 1;
    }
    std::thread other(trace_setting_init);
    trace_setting_init();
    other.join();
    std::printf("process %s\n", get_process_name());
    return set_log_dir("/tmp") == NX_ERROR_ALREADY_INITIALIZED ? 0 : 1;
}
