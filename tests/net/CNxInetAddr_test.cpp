#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include <nx/net/CNxInetAddr.h>

namespace {

void ExpectIs(const CNxInetAddr& address, int type, const char* display, int port) {
    EXPECT_EQ(address.GetType(), type);
    EXPECT_EQ(address.GetSize(), type == AF_INET6 ? 28 : 16);
    EXPECT_EQ(address.GetIpDisplayName(), display);
    EXPECT_EQ(address.GetPort(), port);
    EXPECT_TRUE(address.IsResolved());
    ASSERT_NE(address.GetPtr(), nullptr);
    EXPECT_EQ(address.GetPtr()->sa_family, type);
}

}  // namespace

TEST(CNxInetAddr, SplitsHostAndPortAtTheFirstColon) {
    ExpectIs(CNxInetAddr("10.1.2.3:8080"), AF_INET, "10.1.2.3", 8080);
    ExpectIs(CNxInetAddr("10.1.2.3:"), AF_INET, "10.1.2.3", 0);
    ExpectIs(CNxInetAddr("10.1.2.3:65537"), AF_INET, "10.1.2.3", 1);

    // A literal of the other family first: the type stays, nothing else does.
    CNxInetAddr address("1.2.3.4", 5);
    EXPECT_EQ(address.Set(CNxString("::2"), 6), NX_OK);
    ExpectIs(address, AF_INET6, "::2", 6);
    EXPECT_EQ(address.Set("::1:80"), NX_OK);
    const char zero[28] = {};
    EXPECT_EQ(std::memcmp(address.GetPtr(), zero, sizeof zero), 0);
    EXPECT_EQ(address.GetType(), AF_INET6);
    EXPECT_TRUE(address.IsResolved());
}

TEST(CNxInetAddr, RefusedTextChangesNothing) {
    CNxInetAddr address("10.1.2.3:8080");
    const char* const null = nullptr;
    const CNxString zeroByte("1.2.3.4\0.evil", 13);
    EXPECT_EQ(address.Set(null), NX_ERROR_INVALID_ARG);
    EXPECT_EQ(address.Set(null, 1), NX_ERROR_FAILURE);
    EXPECT_EQ(address.SetIpAddrByString(null), NX_ERROR_FAILURE);
    EXPECT_EQ(address.SetIp6AddrBy16Bytes(null), NX_ERROR_INVALID_ARG);
    EXPECT_EQ(address.Set(CNxString()), NX_ERROR_FAILURE);
    EXPECT_EQ(address.Set(zeroByte), NX_ERROR_FAILURE);
    EXPECT_EQ(address.Set(zeroByte, 1), NX_ERROR_FAILURE);
    EXPECT_EQ(address.Set(std::string(512, 'h').c_str()), NX_ERROR_NOT_AVAILABLE);
    ExpectIs(address, AF_INET, "10.1.2.3", 8080);

    EXPECT_EQ(address.Set((std::string(511, 'h') + ":1").c_str()), NX_ERROR_NOT_AVAILABLE);
    EXPECT_EQ(address.GetHostName().size(), 511U);
    EXPECT_EQ(address.TryResolve(), NX_ERROR_NOT_AVAILABLE) << "no host name is as long";
}

TEST(CNxInetAddr, TextWithItsPortGoesThereAndBack) {
    for (const char* text : {"10.0.0.1:80", "[::1]:65535", "[fe80::1%1]:0", "0.0.0.0:1"}) {
        CNxInetAddr address;
        EXPECT_EQ(address.SetNumeric(text), NX_OK) << text;
        EXPECT_STREQ(address.GetHostPort().c_str(), text);
        CNxInetAddr again;
        EXPECT_EQ(again.Set(text), NX_OK);
        EXPECT_EQ(again, address);
    }
    CNxInetAddr address("10.1.2.3:8080");
    EXPECT_EQ(address.SetNumeric("fe80::1%lo"), NX_OK);
    EXPECT_STREQ(address.GetHostPort().c_str(), "[fe80::1%1]:0");
    EXPECT_STREQ(address.GetHostAddrString().c_str(), "fe80::1");
    EXPECT_EQ(address.SetNumeric("[::2]"), NX_OK);
    ExpectIs(address, AF_INET6, "::2", 0);
    EXPECT_EQ(address.SetNumeric("10.0.0.1"), NX_OK);
    ExpectIs(address, AF_INET, "10.0.0.1", 0);

    for (const char* text : {"",
                             "name",
                             "name:80",
                             "10.0.0.1:",
                             ":80",
                             "10.0.0.1:65536",
                             "10.0.0.1:-1",
                             "10.0.0.1: 1",
                             "10.0.0.1:1x",
                             "[::1",
                             "::1]",
                             "[::1]80",
                             "[::1]:",
                             "[10.0.0.1]:80",
                             "[]:80",
                             "[",
                             "fe80::1%",
                             "fe80::1%none-such",
                             "10.0.0.1%lo",
                             "fe80::1%0",
                             "1.2.3.4\n"}) {
        EXPECT_EQ(address.SetNumeric(text), NX_ERROR_INVALID_ARG) << text;
        EXPECT_EQ(address.SetNumeric(text, 1), NX_ERROR_INVALID_ARG) << text;
    }
    EXPECT_EQ(address.SetNumeric(CNxString("1.2.3.4\0.evil", 13)), NX_ERROR_INVALID_ARG);
    EXPECT_EQ(address.Set("[::1]:x"), NX_ERROR_INVALID_ARG);
    ExpectIs(address, AF_INET, "10.0.0.1", 0);
}

TEST(CNxInetAddr, HostAddrFillsABufferOfAnySizeSafely) {
    const CNxInetAddr address("255.255.255.255:1");
    EXPECT_STREQ(CNxInetAddr(0).GetHostAddr(), "0.0.0.0");
    for (const int size : {-1, 0, 1, 15, 16}) {
        std::vector<char> buffer(static_cast<size_t>(size < 0 ? 0 : size), '?');
        const char* text = address.GetHostAddr(buffer.data(), size);
        EXPECT_STREQ(text, size < 16 ? "" : "255.255.255.255") << size;
    }
    EXPECT_STREQ(address.GetHostAddr(nullptr, 46), "");
}
