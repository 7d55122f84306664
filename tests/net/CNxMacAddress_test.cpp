#include <gtest/gtest.h>
#include <nx/net/CNxMacAddress.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <string>

namespace {

CNxMacAddress Mac(const char* text) {
    CNxMacAddress address;
    EXPECT_EQ(NX_OK, address.Set(text)) << text;
    return address;
}

TEST(CNxMacAddress, EveryFormatIsReadAndWritten) {
    const CNxMacAddress address(CNxMacAddress::Bytes{0x01, 0x23, 0x45, 0x67, 0x89, 0xAB});
    const char* const texts[] = {"01:23:45:67:89:ab", "01-23-45-67-89-ab", "0123.4567.89ab",
                                 "0123456789ab"};
    for (int format = CNxMacAddress::COLON; format <= CNxMacAddress::BARE; ++format) {
        EXPECT_EQ(texts[format],
                  address.ToString(static_cast<CNxMacAddress::EFormat>(format)).GetRawData());
        EXPECT_EQ(address, Mac(texts[format]));
    }
    EXPECT_EQ(address, Mac("01:23:45:67:89:AB"));
    EXPECT_EQ(0x0123456789ABu, address.GetNumber());
}

TEST(CNxMacAddress, WhatIsNotExactlyAnAddressIsRefusedAndChangesNothing) {
    CNxMacAddress address = Mac("01:23:45:67:89:ab");
    for (const CNxString& text :
         {CNxString(), CNxString("01:23:45:67:89:ab:"), CNxString("01:23:45-67-89-ab"),
          CNxString("01:23:45:67:89:ag"), CNxString("+12345678901"), CNxString("0x2345678901"),
          CNxString("0123:4567:89ab"), CNxString("01:23:45:67:89:ab\0", 18)}) {
        EXPECT_EQ(NX_ERROR_INVALID_ARG, address.Set(text)) << text;
    }
    EXPECT_EQ(Mac("0123.4567.89ab"), address);
}

TEST(CNxMacAddress, KindsAreToldByTheFirstByteAndTheOrderToo) {
    EXPECT_TRUE(Mac("ff:ff:ff:ff:ff:ff").IsBroadcast());
    EXPECT_FALSE(Mac("ff:ff:ff:ff:ff:fe").IsBroadcast());
    EXPECT_TRUE(Mac("01:00:5e:00:00:01").IsMulticast());
    EXPECT_FALSE(Mac("02:01:5e:00:00:01").IsMulticast());
    EXPECT_TRUE(Mac("02:42:ac:11:00:02").IsLocallyAdministered());
    EXPECT_FALSE(Mac("3c:42:ac:11:00:02").IsLocallyAdministered());
    EXPECT_LT(Mac("00:ff:ff:ff:ff:ff"), Mac("01:00:00:00:00:00"));
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
