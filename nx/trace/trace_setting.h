// What the process's configuration says about tracing.
#pragma once

// Reads the trace settings, once per process; later calls do nothing. Called by
// CNxThreadManager::InitMainThread. There is no trace engine yet, so it reads nothing and prints
// nothing.
void trace_setting_init();
