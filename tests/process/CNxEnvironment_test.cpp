#include <gtest/gtest.h>
#include <nx/process/CNxEnvironment.h>

#include <cstdlib>

namespace {

TEST(CNxEnvironment, IsACopyOfThatOfTheProcess) {
    setenv("NX_ENVIRONMENT_TEST", "a=b", 1);
    CNxEnvironment environment = CNxEnvironment::OfThisProcess();
    CNxString value;
    EXPECT_EQ(NX_OK, environment.Get("NX_ENVIRONMENT_TEST", value));
    EXPECT_EQ("a=b", value);
    environment.Unset("NX_ENVIRONMENT_TEST");
    EXPECT_EQ(NX_ERROR_NOT_FOUND, environment.Get("NX_ENVIRONMENT_TEST", value));
    EXPECT_STREQ("a=b", std::getenv("NX_ENVIRONMENT_TEST"));
    unsetenv("NX_ENVIRONMENT_TEST");
}

TEST(CNxEnvironment, NamesAreMatchedWholeAndBadOnesRefused) {
    CNxEnvironment environment;
    EXPECT_EQ(NX_OK, environment.Set("AB", "1"));
    EXPECT_EQ(NX_OK, environment.Set("A", "2"));
    EXPECT_EQ(NX_OK, environment.Set("AB", ""));
    CNxString value = "kept";
    for (const CNxString& name : {CNxString(), CNxString("A="), CNxString("A\0", 2)}) {
        EXPECT_EQ(NX_ERROR_INVALID_ARG, environment.Set(name, "x"));
        EXPECT_EQ(NX_ERROR_NOT_FOUND, environment.Get(name, value));
        environment.Unset(name);
    }
    EXPECT_EQ(NX_ERROR_INVALID_ARG, environment.Set("A", CNxString("x\0", 2)));
    EXPECT_EQ("kept", value);
    EXPECT_EQ((std::vector<CNxString>{"AB=", "A=2"}), environment.GetEntries());
}

TEST(CNxEnvironment, AFolderGoesToTheFrontOfTheLibraryPathOnce) {
    CNxEnvironment environment;
    EXPECT_TRUE(environment.GetLibraryPath().empty());
    EXPECT_EQ(NX_OK, environment.Set("LD_LIBRARY_PATH", "/a;/b::/c"));
    EXPECT_EQ((std::vector<CNxString>{"/a", "/b", "", "/c"}), environment.GetLibraryPath());
    EXPECT_EQ(NX_OK, environment.AddLibraryPath("/c"));
    EXPECT_EQ(NX_OK, environment.AddLibraryPath("/d"));
    CNxString value;
    EXPECT_EQ(NX_OK, environment.Get("LD_LIBRARY_PATH", value));
    EXPECT_EQ("/d:/c:/a:/b:", value);
    for (const char* folder : {"", "/a:/b", "/a;"}) {
        EXPECT_EQ(NX_ERROR_INVALID_ARG, environment.AddLibraryPath(folder));
    }
}

}  // namespace
