// The process's paths, seen by programs that stand in different folders.
#include <gtest/gtest.h>

#include "../support/TempFolder.h"

namespace fs = std::filesystem;

TEST(ProcessPath, HomeIsFoundOnceForAllThreadsAndOutsideBinWithAWarning) {
    const CTempFolder folder;
    const std::string root = fs::path(folder.Path()).parent_path();
    const std::string cases[][3] = {
        {"bin", root, ""},
        {"sbin", root + "/sbin", "Warning::" + root + "/sbin,not bin path\n"},
    };
    for (const auto& [place, home, warning] : cases) {
        const std::string program = folder.Path(place + "/srv");
        fs::create_directory(folder.Path(place));
        fs::copy_file(SHOW_PATHS, program);
        const std::string prefix = "trace_setting_init, ";
        EXPECT_EQ("name:srv\n" + warning + prefix + "g_strTracehome1=" + home + "\n" + prefix +
                      "g_strConfigfile1=" + home + "/conf/srv.cfg\n" + prefix + "g_strLogDir1=" +
                      home + "/logs/\n" + prefix + "g_currentProcessName1=srv\nprocess srv\n",
                  OutputOf("'" + program + "'"));
    }
}

TEST(ProcessPath, FoldersAreThoseOfACallElseOfTheEnvironment) {
    const CTempFolder folder;
    fs::create_directory(folder.Path("bin"));
    fs::copy_file(SHOW_PATHS, folder.Path("bin/srv"));
    folder.Put("srv.cfg", "");
    const std::string own = fs::path(folder.Path()).parent_path();
    const auto missing = [](const std::string& path) {
        return "nxbase: cannot read " + path + ": No such file or directory\n";
    };
    const std::string longPath = "$(head -c 800 /dev/zero | tr '\\0' x)";
    const std::string cases[][4] = {
        {"NXBASE_LOG_DIR=/var/log/x NXBASE_CONF_DIR= ./bin/srv", own + "/conf/srv.cfg",
         "/var/log/x/", ""},
        {"NXBASE_CONF_DIR=. ./bin/srv", own + "/./srv.cfg", own + "/logs/", ""},
        {"NXBASE_CONF_DIR=. NXBASE_LOG_DIR=. ./bin/srv /none logs2", "/none/srv.cfg",
         own + "/logs2/", missing("/none/srv.cfg")},
        {"NXBASE_LOG_DIR=" + longPath + " ./bin/srv", own + "/conf/srv.cfg", own + "/logs/",
         "nxbase: cannot use NXBASE_LOG_DIR: File name too long\n"},
    };
    for (const auto& [command, config, logs, complaint] : cases) {
        const std::string output = OutputOf("cd '" + own + "'; " + command +
                                            " 2>&1 | grep -v 'name:\\|home1=' | LC_ALL=C sort");
        const std::string prefix = "trace_setting_init, g_";
        EXPECT_EQ(output, complaint + "process srv\n" + prefix + "currentProcessName1=srv\n" +
                              prefix + "strConfigfile1=" + config + "\n" + prefix +
                              "strLogDir1=" + logs + "\n");
    }
}
