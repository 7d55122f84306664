#include <gtest/gtest.h>
#include <nx/net/CNxIPAddress.h>

namespace {

TEST(CNxIPAddress, DottedTextIsReadStrictly) {
    for (const char* text : {"1.2.3.0", "0.0.0.0", "255.255.255.255", "001.010.099.9"}) {
        EXPECT_TRUE(CNxIPAddress("").ParseDottedIPString(text)) << text;
    }
    for (const char* text :
         {"", "1.2.3.00", "256.1.1.1", "1.2.3.4.5", "1.2.3", "1.2.3.4.", ".1.2.3", "1..2.3", "...",
          "1.2.3.0004", "1.2.3.x", "1.2.3.-4", " 1.2.3.4", "255.255.255.2555"}) {
        EXPECT_FALSE(CNxIPAddress("").ParseDottedIPString(text)) << text;
    }
}

TEST(CNxIPAddress, ClassificationReadsTheBytesInItsOwnOrder) {
    using Address = CNxIPAddress;
    EXPECT_TRUE(Address("192.168.0.7").IsPrivate() && Address("172.16.9.9").IsPrivate());
    EXPECT_FALSE(Address("192.168.1.7").IsPrivate() || Address("172.17.0.1").IsPrivate());
    EXPECT_TRUE(Address("10.255.255.255").IsPrivate() && Address("1.0.0.127").IsLoopback());
    EXPECT_FALSE(Address("127.0.0.1").IsLoopback() || Address("1.0.0.240").IsMultiCast());
    EXPECT_TRUE(Address("1.0.0.224").IsMultiCast() && Address("1.0.0.239").IsMultiCast());
}

}  // namespace
