// Where the running program is: the path of its executable and the home folder of its installation.
//
// An installed program stands in HOME/bin, its configuration in HOME/conf, its logs in HOME/logs.
#pragma once

#include <nx/foundation/CNxString.h>

// The full path of the running executable; empty when the system does not tell (no /proc). The
// path is read anew at every call, so after an upgrade in place it ends in " (deleted)".
CNxString GetProcessName();

// The folder above the executable's folder, without a slash at its end ("/" for "/bin/x"); empty
// when the executable's path is unknown.
// An executable's folder that is not named "bin" is itself the home, and the line
// "Warning::FOLDER,not bin path" goes to standard output (CNxOwnLines) at every call.
CNxString GetBinHomePath();
