#include <gtest/gtest.h>
#include <nx/net/CNxMacAddress.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <string>

namespace {

TEST(CNxMacAddress, EveryFormatIsReadAndWritten) {
    const CNxMacAddress address(CNxMacAddress::Bytes{0x01, 0x23, 0x45, 0x67, 0x89, 0xAB});
    const char* const texts[] = {"01:23:45:67:89:ab", "01-23-45-67-89-ab", "0123.4567.89ab",
                                 "0123456789ab"};
    for (int format = CNxMacAddress::COLON; format <= CNxMacAddress::BARE; ++format) {
        EXPECT_EQ(texts[format],
                  address.ToString(static_cast<CNxMacAddress::EFormat>(format)).GetRawData());
        CNxMacAddress read;
        EXPECT_EQ(NX_OK, read.Set(texts[format]));
        EXPECT_EQ(address, read);
    }
    EXPECT_EQ(0x0123456789ABu, address.GetNumber());
}

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
    std::map<std::string, std::string> found;
    for (const CNxInterfaceMac& one : interfaces) {
        found[one.m_name.GetRawData()] = one.m_address.ToString().GetRawData();
    }
    EXPECT_EQ(expected, found);
}

}  // namespace
