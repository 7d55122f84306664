// The process's paths, seen by programs that stand in different folders.
#include <gtest/gtest.h>

#include "../support/TempFolder.h"

namespace fs = std::filesystem;

TEST(ProcessPath, HomeIsAboveBinAndFoldersAreThoseOfACallElseOfTheEnvironment) {
    const CTempFolder folder;
    for (const std::string place : {"bin", "sbin"}) {
        fs::create_directory(folder.Path(place));
        fs::copy_file(SHOW_PATHS, folder.Path(place + "/srv"));
    }
    folder.Put("srv.cfg", "");
    const std::string own = fs::path(folder.Path()).parent_path();
    const std::string conf = own + "/conf/srv.cfg";
    const std::string logs = own + "/logs/";
    const std::string name = "name:srv\n";
    const std::string longPath = "$(head -c 800 /dev/zero | tr '\\0' x)";
    const std::string cases[][5] = {
        {"./sbin/srv", own + "/sbin", own + "/sbin/conf/srv.cfg", own + "/sbin/logs/",
         "Warning::" + own + "/sbin,not bin path\n" + name},
        {"NXBASE_LOG_DIR=/var/log/x NXBASE_CONF_DIR= ./bin/srv", own, conf, "/var/log/x/", name},
        {"NXBASE_CONF_DIR=. ./bin/srv", own, own + "/./srv.cfg", logs, name},
        {"NXBASE_CONF_DIR=. NXBASE_LOG_DIR=. ./bin/srv /none logs2", own, "/none/srv.cfg",
         own + "/logs2/", name + "nxbase: cannot read /none/srv.cfg: No such file or directory\n"},
        {"NXBASE_LOG_DIR=" + longPath + " ./bin/srv", own, conf, logs,
         name + "nxbase: cannot use NXBASE_LOG_DIR: File name too long\n"},
    };
    for (const auto& [command, home, config, log, first] : cases) {
        const std::string prefix = "trace_setting_init, g_";
        EXPECT_EQ(first + "process srv\n" + prefix + "currentProcessName1=srv\n" + prefix +
                      "strConfigfile1=" + config + "\n" + prefix + "strLogDir1=" + log + "\n" +
                      prefix + "strTracehome1=" + home + "\n",
                  OutputOf("cd '" + own + "'; " + command + " 2>&1 | LC_ALL=C sort"));
    }
}
