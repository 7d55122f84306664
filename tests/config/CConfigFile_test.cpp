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

    CTempFolder m_folder;
    CConfigFile& m_config = *CConfigFile::Instance();
};

TEST_F(CConfigFileTest, EveryValueThatWasSetComesBackFromTheSavedFile) {
    const std::string values[] = {"#fff", "a;b", " ",       "\"a\" b", "'a",
                                  "\"\"", "",    "C:\\d\\", "a\"'b",   std::string(960, 'v')};
    Open("above = 1\n[x:y]\nz = loaded\n");
    for (const std::string& value : values) {
        EXPECT_EQ(m_config.SetStringParam("part:of", "k", value.c_str()), 0);
        EXPECT_EQ(m_config.SetIntParam("new", "n", -5), 0);
        EXPECT_EQ(m_config.SetBoolParam("new", "b", true), 0);
        EXPECT_EQ(m_config.SaveConfig(), NX_OK);
        EXPECT_EQ(Get("part:of", "k"), value) << "what is loaded stays as it is";
        ASSERT_EQ(m_config.Open(m_folder.Path("x.ini").c_str()), 0);
        EXPECT_EQ(Get("part:of", "k"), value);
        EXPECT_EQ(Get("new", "n") + Get("new", "b"), "-5yes");
        EXPECT_EQ(Get("", "above") + Get("x:y", "z"), "1loaded");
    }
}

TEST_F(CConfigFileTest, EntriesThatWouldSpoilTheFileAreRefused) {
    Open("[s]\nk = v\n");
    const std::string entries[][3] = {{"s", "k", "two\nlines"},
                                      {"s", "k", "\"'joins the next\\"},
                                      {"s", "k", std::string(980, 'v')},
                                      {"s", "", "v"},
                                      {"s", "a=b", "v"},
                                      {"s", ";k", "v"},
                                      {"s]", "k", "v"},
                                      {"s:#", "k", "v"}};
    for (const auto& [section, key, value] : entries) {
        EXPECT_EQ(m_config.SetStringParam(section.c_str(), key.c_str(), value.c_str()), -1)
            << section << ":" << key;
    }
    EXPECT_EQ(Get("s", "k"), "v");

    // Loading knows forms that saving does not.
    Open("[s : t]\nk = v\n");
    EXPECT_EQ(m_config.SaveConfig(), NX_ERROR_FAILURE);
    EXPECT_EQ(m_folder.Get("x.ini"), "[s : t]\nk = v\n");
}

TEST_F(CConfigFileTest, WhatCannotBeOpenedOrSavedChangesNothing) {
    Open("[s]\nk = v\n");
    testing::internal::CaptureStderr();
    EXPECT_EQ(m_config.SaveToOtherConfig("/dev/full"), NX_ERROR_FAILURE);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "SaveToOtherConfig: cannot open /dev/full\n");
    testing::internal::CaptureStderr();
    EXPECT_EQ(m_config.Open(m_folder.Put("bad", "[s]\nno entry\n").c_str()), -1);
    EXPECT_EQ(m_config.Open(m_folder.Path("missing").c_str()), -1);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(Get("s", "k"), "(none)");
    EXPECT_EQ(m_config.SaveConfig(), NX_ERROR_FAILURE);
    EXPECT_FALSE(std::filesystem::exists(m_folder.Path("missing")));
}

}  // namespace
