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
