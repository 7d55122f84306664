// The process's paths, found out once: its name, its home, its configuration file and log folder.
//
// Configuration and logs stand in the program's home unless their folders are given (/etc/NAME and
// /var/log/NAME, say): by set_config_dir and set_log_dir, else by the environment variables
// NXBASE_CONF_DIR and NXBASE_LOG_DIR. A program that runs with more rights than whoever started it
// does not heed these (secure_getenv(3)). One that is empty counts as not set, and so does, after a
// line on standard error (CNxOwnLines), one that the calls would refuse. A configuration that is
// missing from a folder that was given is told of there, too.
//
// The profile reader and the trace engine both start from here. All texts are empty until
// trace_setting_init has run; afterwards they do not change, and any thread may read them.
#pragma once

#include <nx/foundation/CNxString.h>
#include <nx/foundation/NxResult.h>

// The base name of the executable.
extern char g_currentProcessName1[1024];
// The home folder of the installation (nx/process/process_path.h), without a slash at its end.
extern char g_strTracehome1[2048];
// HOME/conf/NAME.cfg, or NAME.cfg in the folder that is given
extern char g_strConfigfile1[1024];
// HOME/logs/, or the folder that is given and a slash
extern char g_strLogDir1[2048];

// Give the folder of the configuration file and that of the logs, before trace_setting_init (that
// is, before CNxThreadManager::InitMainThread); the last call counts. A path that does not begin
// with a slash goes from the current folder of the call on (that of trace_setting_init for an
// environment variable). The folder need not be there yet.
// NX_OK; NX_ERROR_INVALID_ARG for null, an empty path, or one that is longer than 760 bytes with
// the current folder before it; NX_ERROR_ALREADY_INITIALIZED after trace_setting_init;
// NX_ERROR_FAILURE when the system does not tell the current folder.
[[nodiscard]] NxResult set_config_dir(const char* path);
[[nodiscard]] NxResult set_log_dir(const char* path);

// The folder of the logs, as given or else HOME/logs; empty when the home is needed and unknown.
CNxString get_log_dir();

// Fills the four texts and prints them to standard output, or where the process says
// (nx/foundation/CNxOwnLines.h), once per process; later calls do nothing. A text that does not fit
// its array is cut. Without a process name (its path ends in '/') nothing but the name line is
// printed, and the next call tries again. Called by CNxThreadManager::InitMainThread, the trace
// engine and refresh_trace_config; threads that call it at the same time wait for the first.
void trace_setting_init();

// The full path of the executable, at most 1023 bytes, found out at the first call; empty when it
// is unknown. Do not write to it.
char* get_exec_name();

// The part of get_exec_name() after its last '/', "defproc" when the path is unknown. Do not write
// to it.
char* get_process_name();
