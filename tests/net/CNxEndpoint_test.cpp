#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string>

#include <nx/net/CNxEndpoint.h>
#include <nx/net/CNxSocket.h>

namespace {

const std::string c_longName(107, 'n');

CNxEndpoint Parse(const std::string& text) {
    CNxEndpoint endpoint;
    EXPECT_EQ(endpoint.Set(text.c_str()), NX_OK) << text;
    return endpoint;
}

// A unix address whose path has these bytes, its zero byte among them if there is one.
NxResult SetUnix(CNxEndpoint& endpoint, const std::string& path, size_t extraSize = 0) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path);
    const size_t size = offsetof(sockaddr_un, sun_path) + path.size() + extraSize;
    return endpoint.SetAddress(reinterpret_cast<const sockaddr*>(&address),
                               static_cast<socklen_t>(size));
}

}  // namespace

TEST(CNxEndpoint, TextGoesThereAndBack) {
    const struct {
        std::string text, host;
        int family;
        unsigned short port;
        size_t size;
    } rows[] = {
        {"10.0.0.1:80", "10.0.0.1", AF_INET, 80, 16},
        {"0.0.0.0:0", "0.0.0.0", AF_INET, 0, 16},
        {"[fe80::1%1]:65535", "fe80::1%1", AF_INET6, 65535, 28},
        {"[::]:80", "::", AF_INET6, 80, 28},
        {"*:80", "*", AF_INET6, 80, 28},
        {"unix:/run/a:b", "/run/a:b", AF_UNIX, 0, 2 + 8 + 1},
        {"unix:@a", "@a", AF_UNIX, 0, 2 + 2},
        {"unix:@", "@", AF_UNIX, 0, 2 + 1},
        {"unix:", "", AF_UNIX, 0, 2},
        {"unix:" + c_longName, c_longName, AF_UNIX, 0, 110},
    };
    for (const auto& row : rows) {
        const CNxEndpoint endpoint = Parse(row.text);
        EXPECT_EQ(endpoint.GetText(), row.text);
        EXPECT_EQ(endpoint.GetHost(), row.host);
        EXPECT_EQ(endpoint.GetUnixName(), row.family == AF_UNIX ? row.host : "");
        EXPECT_EQ(endpoint.GetFamily(), row.family) << row.text;
        EXPECT_EQ(endpoint.GetPort(), row.port) << row.text;
        EXPECT_EQ(endpoint.GetSize(), row.size) << row.text;
        EXPECT_EQ(endpoint.IsDual(), row.text[0] == '*');
        CNxEndpoint copy;
        EXPECT_EQ(copy.SetAddress(endpoint.GetAddress(), endpoint.GetSize()), NX_OK);
        EXPECT_EQ(copy == endpoint, !endpoint.IsDual()) << row.text;
        copy.SetPort(7);
        EXPECT_EQ(copy.GetPort(), row.family == AF_UNIX ? 0 : 7);
    }
    EXPECT_EQ(Parse("[fe80::1%lo]:1").GetText(), "[fe80::1%1]:1");
    EXPECT_EQ(Parse("[::ffff:10.0.0.1]:1"), Parse("10.0.0.1:1"));
}

TEST(CNxEndpoint, OtherTextChangesNothing) {
    CNxEndpoint endpoint = Parse("10.0.0.1:80");
    for (const std::string& text :
         {std::string(), std::string("10.0.0.1"), std::string("10.0.0.1:"), std::string(":80"),
          std::string("10.0.0.1:65536"), std::string("::1"), std::string("::1:80"),
          std::string("[::1]"), std::string("[::1]:"), std::string("[10.0.0.1]:80"),
          std::string("*"), std::string("*80"), std::string("*:"), std::string("*:x"),
          std::string("localhost:80"), std::string("unix"), std::string("[::1:80"),
          "unix:x" + c_longName, "unix:@" + c_longName + "x"}) {
        EXPECT_EQ(endpoint.Set(text.c_str()), NX_ERROR_INVALID_ARG) << text;
    }
    EXPECT_EQ(endpoint.Set(nullptr), NX_ERROR_INVALID_ARG);
    EXPECT_EQ(endpoint, CNxEndpoint(CNxInetAddr("10.0.0.1", 80)));

    endpoint = CNxEndpoint(CNxInetAddr("name.invalid", 80));
    EXPECT_EQ(endpoint, CNxEndpoint());
    EXPECT_EQ(endpoint.GetFamily(), AF_UNSPEC);
    EXPECT_EQ(endpoint.GetText() + endpoint.GetHost(), "");
}

TEST(CNxEndpoint, TakesWhatTheSystemGivesAndNothingElse) {
    CNxEndpoint endpoint;
    // Zero bytes after a path are not part of it; every byte of an abstract name is.
    ASSERT_EQ(SetUnix(endpoint, std::string("/a\0\0x", 5)), NX_OK);
    EXPECT_EQ(endpoint, Parse("unix:/a"));
    ASSERT_EQ(SetUnix(endpoint, "/a"), NX_OK);
    EXPECT_EQ(endpoint, Parse("unix:/a"));
    ASSERT_EQ(SetUnix(endpoint, std::string("\0a\0", 3)), NX_OK);
    EXPECT_EQ(endpoint.GetText(), std::string("unix:@a\0", 8));
    EXPECT_NE(endpoint, Parse("unix:@a"));
    ASSERT_EQ(SetUnix(endpoint, "@a"), NX_OK);
    EXPECT_EQ(endpoint.GetText(), "unix:./@a");
    // A path without room for its zero byte.
    ASSERT_EQ(SetUnix(endpoint, std::string(108, 'p'), 1), NX_OK);
    EXPECT_EQ(endpoint.GetUnixName(), std::string(108, 'p'));
    EXPECT_EQ(endpoint.GetSize(), sizeof(sockaddr_un));

    EXPECT_EQ(SetUnix(endpoint, std::string(108, 'p'), 2), NX_ERROR_INVALID_ARG);
    const CNxEndpoint v6 = Parse("[::1]:80");
    EXPECT_EQ(endpoint.SetAddress(v6.GetAddress(), 27), NX_ERROR_INVALID_ARG);
    EXPECT_EQ(endpoint.SetAddress(v6.GetAddress(), 0), NX_ERROR_INVALID_ARG);
    EXPECT_EQ(endpoint.SetAddress(nullptr, 16), NX_ERROR_INVALID_ARG);
    const sockaddr other{};
    EXPECT_EQ(endpoint.SetAddress(&other, sizeof other), NX_ERROR_INVALID_ARG);
    EXPECT_EQ(endpoint.GetUnixName(), std::string(108, 'p'));
}

TEST(CNxEndpoint, KnowsBothEndsOfASocket) {
    CNxSocketTcp server;
    CNxSocketTcp client;
    ASSERT_EQ(server.Open(0, CNxInetAddr("127.0.0.1", 0)), 0);
    ASSERT_EQ(client.Open(0, CNxInetAddr("127.0.0.1", 0)), 0);
    ASSERT_EQ(listen(server.GetHandle(), 1), 0);
    CNxEndpoint local;
    ASSERT_EQ(local.SetLocalOf(server.GetHandle()), NX_OK);
    EXPECT_NE(local.GetPort(), 0);
    CNxEndpoint peer;
    EXPECT_EQ(peer.SetPeerOf(client.GetHandle()), NX_ERROR_FAILURE);
    EXPECT_EQ(errno, ENOTCONN);
    ASSERT_EQ(connect(client.GetHandle(), local.GetAddress(), local.GetSize()), 0);
    EXPECT_EQ(peer.SetPeerOf(client.GetHandle()), NX_OK);
    EXPECT_EQ(peer, local);
    EXPECT_EQ(peer.SetLocalOf(-1), NX_ERROR_FAILURE);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(peer, local);
}
