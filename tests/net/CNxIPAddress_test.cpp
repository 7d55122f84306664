#include <gtest/gtest.h>
#include <netdb.h>
#include <nx/net/CNxIPAddress.h>

#include <string>

namespace {

TEST(CNxIPAddress, DottedTextIsReadStrictly) {
    for (const char* text : {"1.2.3.0", "0.0.0.0", "255.255.255.255", "001.010.099.9"}) {
        EXPECT_TRUE(CNxIPAddress("").ParseDottedIPString(text)) << text;
    }
    for (const char* text : {"", "1.2.3.00", "1.2.3.000", "256.1.1.1", "1.2.3.4.5", "1.2.3",
                             "1.2.3.4.", ".1.2.3", "1..2.3", "...", "1.2.3.0004", "1.2.3.x",
                             "1.2.3.-4", " 1.2.3.4", "1.2.3. 4", "255.255.255.2555", "+1.2.3.4"}) {
        EXPECT_FALSE(CNxIPAddress("").ParseDottedIPString(text)) << text;
    }
    EXPECT_FALSE(CNxIPAddress("").ParseDottedIPString(nullptr));
    EXPECT_STREQ(CNxIPAddress("001.010.099.9").ToString(), "1.10.99.9");
    unsigned char octets[4];
    CNxIPAddress("1.2.3.255").ToOctet(octets);
    EXPECT_EQ(octets[0] + octets[3], 256);
}

TEST(CNxIPAddress, ClassificationReadsTheBytesInItsOwnOrder) {
    const struct {
        const char* m_text;
        int m_private, m_loopback, m_multiCast;
        unsigned int m_broadCast;
    } cases[] = {
        {"192.168.0.7", 1, 0, 0, 0x0700a8c0}, {"192.168.1.7", 0, 0, 0, 0x0701a8c0},
        {"172.16.9.9", 1, 0, 0, 0x090910ac},  {"172.17.0.1", 0, 0, 0, 0x010011ac},
        {"10.255.255.255", 1, 0, 0, ~0xf5u},  {"127.0.0.1", 0, 0, 0, 0x0100007f},
        {"1.0.0.127", 0, 1, 0, 0x7f000001},   {"224.0.0.1", 0, 0, 0, 0x010000e0},
        {"1.0.0.224", 0, 0, 1, 0xe0000001},   {"1.0.0.239", 0, 0, 1, 0xef000001},
        {"1.0.0.240", 0, 0, 0, 0xf0000001},   {"0.0.0.0", 0, 0, 0, 0},
    };
    for (const auto& expected : cases) {
        const CNxIPAddress address(expected.m_text);
        EXPECT_EQ(address.IsPrivate(), expected.m_private) << expected.m_text;
        EXPECT_EQ(address.IsLoopback(), expected.m_loopback) << expected.m_text;
        EXPECT_EQ(address.IsMultiCast(), expected.m_multiCast) << expected.m_text;
        EXPECT_EQ(address.IsBroadCast(), expected.m_broadCast) << expected.m_text;
    }
}

}  // namespace
