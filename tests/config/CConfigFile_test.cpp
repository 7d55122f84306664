// The read-write ini file: values come back from a saved file, and failures change nothing.
#include <gtest/gtest.h>
#include <nx/config/CConfigFile.h>

#include "../support/TempFolder.h"

namespace {

class CConfigFileTest : public testing::Test {
protected:
    void TearDown() override { m_config.Close(); }
    void Open(const std::string& content) {
        ASSERT_EQ(m_config.Open(m_folder.Put("x.ini", content).c_str()), 0);
    }
    std::string Get(const char* section, const char* key) {
        return m_config.GetStringParam(section, key, "(none)").c_str();
    }
    // What a save that fails says.
    std::string ErrorsOfSaving(const std::string& path) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(m_config.SaveToOtherConfig(path.c_str()), NX_ERROR_FAILURE);
        return testing::internal::GetCapturedStderr();
    }

    CTempFolder m_folder;
    CConfigFile& m_config = *CConfigFile::Instance();
};

}  // namespace

TEST_F(CConfigFileTest, EveryValueThatWasSetComesBackFromTheSavedFile) {
    Open("above = 1\n[old]\nk = v\n[x:y]\nz = loaded\n");
    EXPECT_EQ(m_config.SetIntParam("new", "n", -5), 0);
    EXPECT_EQ(m_config.SetBoolParam("new", "b", true), 0);
    EXPECT_EQ(m_config.SetStringParam("old", "empty", ""), 0);
    EXPECT_EQ(m_config.SetStringParam("part:of", "k", "colon"), 0);
    EXPECT_EQ(m_config.SetStringParam("long", "k", std::string(960, 'v').c_str()), 0);
    EXPECT_EQ(m_config.SaveConfig(), NX_OK);
    EXPECT_NE(m_folder.Get("x.ini").find("[new]\n"), std::string::npos);

    ASSERT_EQ(m_config.Open(m_folder.Path("x.ini").c_str()), 0);
    EXPECT_EQ(Get("new", "n") + Get("new", "b"), "-5yes");
    EXPECT_EQ(Get("old", "empty"), "");
    EXPECT_EQ(Get("part:of", "k"), "colon");
    EXPECT_EQ(Get("", "above"), "1");
    EXPECT_EQ(Get("x:y", "z"), "loaded");
    EXPECT_EQ(Get("long", "k"), std::string(960, 'v'));
}

TEST_F(CConfigFileTest, ValuesAreQuotedWhereTheFileNeedsIt) {
    for (const char* value : {"#fff", "a;b", " ", "\"a\" b", "'a", "\"\"", "C:\\d\\", "a\"'b"}) {
        Open("");
        EXPECT_EQ(m_config.SetStringParam("s", "k", value), 0);
        EXPECT_EQ(m_config.SaveConfig(), NX_OK);
        EXPECT_EQ(Get("s", "k"), value) << "what is loaded stays as it is";
        ASSERT_EQ(m_config.Open(m_folder.Path("x.ini").c_str()), 0);
        EXPECT_EQ(Get("s", "k"), value);
    }
}

TEST_F(CConfigFileTest, EntriesThatWouldSpoilTheFileAreRefused) {
    Open("[s]\nk = v\n");
    const struct {
        const char* section;
        const char* key;
        std::string value;
    } entries[] = {
        {"s", "k", "two\nlines"},
        {"s", "k", "\"'joins the next\\"},
        {"s", "k", std::string(980, 'v')},
        {"s", "", "v"},
        {"s", "a=b", "v"},
        {"s", ";k", "v"},
        {"s]", "k", "v"},
        {"s:#", "k", "v"},
    };
    for (const auto& entry : entries) {
        EXPECT_EQ(m_config.SetStringParam(entry.section, entry.key, entry.value.c_str()), -1)
            << entry.section << ":" << entry.key;
    }
    EXPECT_EQ(Get("s", "k"), "v");

    // Loading knows forms that saving does not.
    Open("[s : t]\nk = v\n");
    EXPECT_EQ(m_config.SaveConfig(), NX_ERROR_FAILURE);
    EXPECT_EQ(m_folder.Get("x.ini"), "[s : t]\nk = v\n");
}

TEST_F(CConfigFileTest, AfterAFailedOpenNothingIsLoaded) {
    Open("[s]\nk = v\n");
    testing::internal::CaptureStderr();
    EXPECT_EQ(m_config.Open(m_folder.Put("bad", "[s]\nno entry\n").c_str()), -1);
    EXPECT_EQ(m_config.Open(m_folder.Put("long", std::string(5000, 'x')).c_str()), -1);
    EXPECT_EQ(m_config.Open(m_folder.Path("missing").c_str()), -1);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(Get("s", "k"), "(none)");
    EXPECT_EQ(m_config.SetIntParam("s", "k", 1), -1);
    EXPECT_EQ(m_config.SaveConfig(), NX_ERROR_FAILURE);
    EXPECT_FALSE(std::filesystem::exists(m_folder.Path("missing")));
}

TEST_F(CConfigFileTest, FailedSavesSaySo) {
    Open("[s]\nk = v\n");
    for (const std::string path : {"/nowhere/x", "/dev/full"}) {
        EXPECT_EQ(ErrorsOfSaving(path), "SaveToOtherConfig: cannot open " + path + "\n");
    }
    EXPECT_EQ(ErrorsOfSaving(""), "");
    std::filesystem::remove_all(m_folder.Path("x.ini"));
    std::filesystem::create_directory(m_folder.Path("x.ini"));
    EXPECT_EQ(m_config.SaveConfig(), NX_ERROR_FAILURE);
}
