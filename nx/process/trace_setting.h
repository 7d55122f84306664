// The process's paths, found out once: its name, its home, its configuration file and log folder.
//
// The profile reader and the trace engine both start from here. All texts are empty until
// trace_setting_init has run; afterwards they do not change, and any thread may read them.
#pragma once

// The base name of the executable.
extern char g_currentProcessName1[1024];
// The home folder of the installation (nx/process/process_path.h), without a slash at its end.
extern char g_strTracehome1[2048];
// HOME/conf/NAME.cfg
extern char g_strConfigfile1[1024];
// HOME/logs/
extern char g_strLogDir1[2048];

// Fills the four texts and prints them to standard output, once per process; later calls do
// nothing. A text that does not fit its array is cut. Without a process name (its path ends in
// '/') nothing but the name line is printed, and the next call tries again. Called by
// CNxThreadManager::InitMainThread, the trace engine and refresh_trace_config; threads that call it
// at the same time wait for the first.
void trace_setting_init();

// The full path of the executable, at most 1023 bytes, found out at the first call; empty when it
// is unknown. Do not write to it.
char* get_exec_name();

// The part of get_exec_name() after its last '/', "defproc" when the path is unknown. Do not write
// to it.
char* get_process_name();
