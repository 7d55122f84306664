// The process's paths, seen by programs that stand in different folders.
#include <gtest/gtest.h>

#include "../support/TempFolder.h"

namespace fs = std::filesystem;

namespace {

std::string RunCopy(const fs::path& program) {
    fs::create_directories(program.parent_path());
    fs::copy_file(SHOW_PATHS, program);
    return OutputOf("'" + program.string() + "'");
}

std::string InitLines(const std::string& home, const std::string& name) {
    const std::string prefix = "trace_setting_init, ";
    return prefix + "g_strTracehome1=" + home + "\n" + prefix + "g_strConfigfile1=" + home +
           "/conf/" + name + ".cfg\n" + prefix + "g_strLogDir1=" + home + "/logs/\n" + prefix +
           "g_currentProcessName1=" + name + "\n";
}

}  // namespace

TEST(ProcessPath, InstalledProgramFindsItsHomeOnceForAllThreads) {
    const CTempFolder folder;
    const std::string output = RunCopy(folder.Path("bin/srv"));
    const std::string expected =
        "name:srv\n" +
        InitLines(folder.Path().substr(0, folder.Path().find_last_not_of('/') + 1), "srv");
    EXPECT_EQ(output, expected + "process srv\n");
}

TEST(ProcessPath, OutsideBinTheExecutablesFolderIsHomeAndAWarningIsPrinted) {
    const CTempFolder folder;
    const std::string home = folder.Path("sbin");
    const std::string output = RunCopy(home + "/srv");
    const std::string expected =
        "name:srv\nWarning::" + home + ",not bin path\n" + InitLines(home, "srv");
    EXPECT_EQ(output.substr(0, expected.size()), expected);
}
