#include <gtest/gtest.h>
#include <nx/net/CNxInetAddr.h>

#include <string>

namespace {

void ExpectIs(const CNxInetAddr& address, int type, const char* display, int port) {
    EXPECT_EQ(address.GetType(), type);
    EXPECT_EQ(address.GetSize(), type == AF_INET6 ? 28 : 16);
    EXPECT_EQ(address.GetIpDisplayName(), display);
    EXPECT_EQ(address.GetPort(), port);
    EXPECT_TRUE(address.IsResolved());
    EXPECT_EQ(address.GetPtr()->sa_family, type);
}

TEST(CNxInetAddr, SplitsHostAndPortAtTheFirstColonButNotAnAddress) {
    ExpectIs(CNxInetAddr("10.1.2.3:"), AF_INET, "10.1.2.3", 0);
    ExpectIs(CNxInetAddr("10.1.2.3:65537"), AF_INET, "10.1.2.3", 1);
    CNxInetAddr address("1.2.3.4", 5);
    EXPECT_EQ(address.Set(CNxString("::2"), 6), NX_OK);
    ExpectIs(address, AF_INET6, "::2", 6);
    // The type stays, nothing else does.
    EXPECT_EQ(address.Set("::1:80"), NX_OK);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(address.GetPtr()), 28),
              std::string(28, '\0'));
    EXPECT_EQ(address.GetType(), AF_INET6);
    EXPECT_EQ(address.SetNumeric("fe80::1%lo"), NX_OK);
    EXPECT_STREQ(address.GetHostPort().c_str(), "[fe80::1%1]:0");
    EXPECT_STREQ(address.GetHostAddrString().c_str(), "fe80::1");
    EXPECT_EQ(address.SetNumeric("[::3]"), NX_OK);
    ExpectIs(address, AF_INET6, "::3", 0);
    EXPECT_EQ(address.Set("[::4]:5"), NX_OK);
    ExpectIs(address, AF_INET6, "::4", 5);
}

TEST(CNxInetAddr, RefusedTextChangesNothing) {
    CNxInetAddr address("10.1.2.3:8080");
    const char* const null = nullptr;
    const CNxString zeroByte("1.2.3.4\0.evil", 13);
    EXPECT_EQ(address.Set(null), NX_ERROR_INVALID_ARG);
    EXPECT_EQ(address.Set(null, 1), NX_ERROR_FAILURE);
    for (const CNxString& text : {CNxString(), zeroByte}) {
        EXPECT_EQ(address.Set(text), NX_ERROR_FAILURE);
        EXPECT_EQ(address.Set(text, 1), NX_ERROR_FAILURE);
        EXPECT_EQ(address.SetNumeric(text), NX_ERROR_INVALID_ARG);
    }
    EXPECT_EQ(address.Set("[::1]:x"), NX_ERROR_INVALID_ARG);
    EXPECT_EQ(address.Set(std::string(512, 'h').c_str()), NX_ERROR_NOT_AVAILABLE);
    ExpectIs(address, AF_INET, "10.1.2.3", 8080);
    EXPECT_EQ(address.Set((std::string(511, 'h') + ":1").c_str()), NX_ERROR_NOT_AVAILABLE);
    EXPECT_EQ(address.GetHostName().size(), 511U);
}

}  // namespace
