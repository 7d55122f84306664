// Every format is in tests/fuzz/mac_address_fuzz.cpp.
#include <gtest/gtest.h>
#include <nx/net/CNxMacAddress.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <string>

namespace {

// The kernel's other account of them.
TEST(CNxMacAddress, InterfacesAreThoseOfTheKernel) {
    std::map<std::string, std::string> expected;
    for (const auto& folder : std::filesystem::directory_iterator("/sys/class/net")) {
        int kind = 0;
        std::string address;
        std::ifstream(folder.path() / "type") >> kind;
        std::ifstream(folder.path() / "address") >> address;
        if (kind != 772 && address.size() == 17) {  // 772: ARPHRD_LOOPBACK
            expected[folder.path().filename()] = address;
        }
    }
    std::vector<CNxInterfaceMac> interfaces;
    ASSERT_EQ(NX_OK, CNxMacAddress::GetInterfaces(interfaces));
    EXPECT_EQ(expected.size(), interfaces.size());
    for (const CNxInterfaceMac& one : interfaces) {
        EXPECT_EQ(expected[one.m_name.GetRawData()], one.m_address.ToString().GetRawData());
    }
}

}  // namespace
