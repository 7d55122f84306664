#include <gtest/gtest.h>
#include <nx/process/CNxEnvironment.h>

#include <cstdlib>

namespace {

using Texts = std::vector<CNxString>;

TEST(CNxEnvironment, IsACopyWhoseNamesAreMatchedWholeAndBadOnesRefused) {
    CNxEnvironment environment = CNxEnvironment::OfThisProcess();
    CNxString value;
    EXPECT_EQ(NX_OK, environment.Get("PATH", value));
    EXPECT_EQ(std::getenv("PATH"), value);
    environment.Unset("PATH");
    EXPECT_EQ(NX_ERROR_NOT_FOUND, environment.Get("PATH", value));
    EXPECT_NE(nullptr, std::getenv("PATH"));

    environment = CNxEnvironment();
    EXPECT_EQ(NX_OK, environment.Set("AB", "1"));
    EXPECT_EQ(NX_OK, environment.Set("A", "2"));
    EXPECT_EQ(NX_OK, environment.Set("AB", ""));
    for (const CNxString& name : {CNxString(), CNxString("A="), CNxString("A\0", 2)}) {
        EXPECT_EQ(NX_ERROR_INVALID_ARG, environment.Set(name, "x"));
        EXPECT_EQ(NX_ERROR_NOT_FOUND, environment.Get(name, value));
        environment.Unset(name);
    }
    EXPECT_EQ(NX_ERROR_INVALID_ARG, environment.Set("A", CNxString("x\0", 2)));
    EXPECT_EQ((Texts{"AB=", "A=2"}), environment.GetEntries());

    // A folder goes to the front of the library path, once.
    EXPECT_EQ(NX_OK, environment.Set("LD_LIBRARY_PATH", "/a;/b::/c"));
    EXPECT_EQ(NX_OK, environment.AddLibraryPath("/c"));
    EXPECT_EQ(NX_ERROR_INVALID_ARG, environment.AddLibraryPath("/a:/b"));
    EXPECT_EQ((Texts{"/c", "/a", "/b", ""}), environment.GetLibraryPath());
}

}  // namespace
