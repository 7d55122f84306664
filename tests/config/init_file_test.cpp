// Profile files: their syntax, the bounds of every reader, and the parameters with their defaults.
#include <gtest/gtest.h>
#include <nx/config/CConfigFile.h>
#include <nx/config/CNxConfigInitFile.h>
#include <nx/config/init_file.h>
#include <nx/process/trace_setting.h>
#include <sys/stat.h>

#include <cstring>

#include "../support/TempFolder.h"

namespace {

class CProfileTest : public testing::Test {
protected:
    // Makes this the process's configuration file.
    void Write(const std::string& content) {
        m_path = m_folder.Put("x.cfg", content);
        std::snprintf(g_strConfigfile1, sizeof(g_strConfigfile1), "%s", m_path.c_str());
    }
    void TearDown() override { g_strConfigfile1[0] = '\0'; }

    std::string Get(const char* section, const char* key) {
        char out[4096];
        get_string_from_profile(section, key, "(none)", out, sizeof(out), m_path.c_str());
        return out;
    }

    CTempFolder m_folder;
    std::string m_path;
};

}  // namespace

TEST_F(CProfileTest, FindsEntriesOfTheFirstSectionOfTheName) {
    Write(
        "above=1\n  # key=comment\n[ other ]\nkey = wrong\n"
        "x [ Trace ] y\r\nKey = first ; kept # too\r\nline without equals\nempty =\na=b=c\n"
        "both=\" a b \"\nopen=\"open\nmixed='mixed\"\n"
        "list=[1]\nafter=a header\n[Trace]\nlate=never\n");
    EXPECT_EQ(Get("trace", "KEY"), "first ; kept # too");
    EXPECT_EQ(Get("Trace", "a"), "b=c");
    EXPECT_EQ(Get("Trace", "empty"), "");
    EXPECT_EQ(Get("Trace", "both"), "a b");
    EXPECT_EQ(Get("Trace", "open") + Get("Trace", "mixed"), "\"open'mixed\"");
    EXPECT_EQ(Get("Trace", "after"), "(none)") << "a value in brackets is a header";
    EXPECT_EQ(Get("Trace", "late"), "(none)");
    EXPECT_EQ(Get("", "above"), "(none)");
}

TEST_F(CProfileTest, OnlyTheRawReaderLeavesItsOutputUnterminated) {
    Write("[s]\nk=12345678");
    char out[9] = "????????";
    FILE* const file = std::fopen(m_path.c_str(), "rte");
    EXPECT_TRUE(read_init_file(file, "s", "k", out, 8));
    std::fclose(file);
    EXPECT_STREQ(out, "12345678");

    EXPECT_EQ(get_string_from_profile("s", "k", "", out, 8, m_path.c_str()), 7U);
}

TEST_F(CProfileTest, ParametersDropOneSemicolonAndTruncate) {
    Write(
        "[Trace]\nEnable=TRUE;\nstdout=yes\nempty=\nn = -7;\nport=65537\n"
        "big=4294967295;\nword=x\ntwice=5;;\n");
    EXPECT_EQ(get_bool_param("Trace", "Enable", 0), 1);
    EXPECT_EQ(get_bool_param("Trace", "stdout", 1), 0);
    EXPECT_EQ(get_bool_param("Trace", "empty", 1), 1);
    EXPECT_EQ(get_int_param("Trace", "n"), -7);
    EXPECT_EQ(get_uint16_param("Trace", "port"), 1);
    EXPECT_EQ(get_uint32_param("Trace", "big"), 4294967295U);
    EXPECT_EQ(get_int_from_profile("Trace", "word", 9, m_path.c_str()), 9);
    char out[16];
    EXPECT_TRUE(get_string_param("Trace", "twice", out, sizeof(out)));
    EXPECT_STREQ(out, "5;");
}

// Before, the look-up waited for a writer.
TEST_F(CProfileTest, AFifoOrDeviceIsNoConfiguration) {
    Write("");
    EXPECT_EQ(open_config_file(), nullptr) << "being rewritten";
    for (const std::string& path : {m_folder.Path("fifo"), std::string("/dev/zero")}) {
        static_cast<void>(mkfifo(path.c_str(), 0666));
        std::snprintf(g_strConfigfile1, sizeof(g_strConfigfile1), "%s", path.c_str());
        EXPECT_EQ(get_bool_param("Trace", "Enable", 1), 1);
        EXPECT_EQ(open_config_file(), nullptr);
        EXPECT_EQ(CConfigFile().Open(path.c_str()), -1);
    }
}
