#include <nx/trace/trace_setting.h>

void trace_setting_init() {}
