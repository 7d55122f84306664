#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <nx/foundation/CNxAutoPtr.h>
#include <nx/net/CNxInetAddr.h>
#include <nx/resolve/CNxDnsManager.h>

namespace {

std::string Display(const CNxInetAddr& address) {
    return address.GetIpDisplayName().GetRawData();
}

void ExpectIs(const CNxInetAddr& address, int type, const char* display, int port) {
    EXPECT_EQ(address.GetType(), type);
    EXPECT_EQ(address.GetSize(), type == AF_INET6 ? 28 : 16);
    EXPECT_EQ(Display(address), display);
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
    EXPECT_EQ(address.GetType(), AF_INET6);
    EXPECT_TRUE(address.IsResolved());
    EXPECT_EQ(std::memcmp(address.GetPtr(), zero, sizeof zero), 0);
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
}

TEST(CNxInetAddr, UnresolvedHostNameIsKeptWithItsPort) {
    CNxInetAddr address("10.1.2.3:8080");
    EXPECT_EQ(address.Set("server.invalid", 443), NX_ERROR_NOT_AVAILABLE);
    EXPECT_FALSE(address.IsResolved());
    EXPECT_EQ(Display(address), "server.invalid");
    EXPECT_EQ(address.GetType(), AF_INET);
    EXPECT_EQ(address.GetPort(), 443);
    EXPECT_EQ(address.GetPtr()->sa_family, 0);
    EXPECT_EQ(address.TryResolve(), NX_ERROR_NOT_AVAILABLE);
    EXPECT_EQ(address, CNxInetAddr("another.invalid", 443)) << "the host name does not count";

    // The object's own host name may be handed back to it.
    EXPECT_EQ(address.Set(address.GetHostName(), 444), NX_ERROR_NOT_AVAILABLE);
    EXPECT_EQ(address.GetHostName().GetRawData(), "server.invalid");

    EXPECT_EQ(address.Set("::1", 1), NX_OK);
    ExpectIs(address, AF_INET6, "::1", 1);
    EXPECT_EQ(address.TryResolve(), NX_OK);
}

TEST(CNxInetAddr, HostAddrFillsABufferOfAnySizeSafely) {
    const CNxInetAddr address("255.255.255.255:1");
    EXPECT_STREQ(address.GetHostAddr(), "255.255.255.255");
    EXPECT_STREQ(CNxInetAddr(0).GetHostAddr(), "0.0.0.0");
    for (int size = -1; size <= 17; ++size) {
        std::vector<char> buffer(static_cast<size_t>(size < 0 ? 0 : size), '?');
        const char* text = address.GetHostAddr(buffer.data(), size);
        EXPECT_STREQ(text, size < 16 ? "" : "255.255.255.255") << size;
    }
    EXPECT_STREQ(address.GetHostAddr(nullptr, 46), "");
}
