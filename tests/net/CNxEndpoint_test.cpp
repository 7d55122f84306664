#include <nx/net/CNxEndpoint.h>
#include <tests/support/Endpoints.h>

#include <cstddef>
#include <string>

namespace {

const std::string c_longName(107, 'n');

// A unix address with these bytes as its path or name, `more` than there are of them.
NxResult SetUnix(CNxEndpoint& endpoint, const std::string& bytes, size_t more = 0) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    bytes.copy(address.sun_path, sizeof address.sun_path);
    const size_t size = offsetof(sockaddr_un, sun_path) + bytes.size() + more;
    return endpoint.SetAddress(reinterpret_cast<const sockaddr*>(&address),
                               static_cast<socklen_t>(size));
}

}  // namespace

TEST(CNxEndpoint, TextGoesThereAndBack) {
    const struct {
        std::string text, host;
        int family;
        unsigned short port;
    } rows[] = {{"[fe80::1%1]:65535", "fe80::1%1", AF_INET6, 65535},
                {"[::]:0", "::", AF_INET6, 0},
                {"*:80", "*", AF_INET6, 80},
                {"unix:/run/a:b", "/run/a:b", AF_UNIX, 0},
                {"unix:@a", "@a", AF_UNIX, 0},
                {"unix:", "", AF_UNIX, 0},
                {"unix:" + c_longName, c_longName, AF_UNIX, 0}};
    for (const auto& row : rows) {
        const CNxEndpoint endpoint = Parse(row.text);
        EXPECT_EQ(endpoint.GetText(), row.text);
        EXPECT_EQ(endpoint.GetHost(), row.host);
        EXPECT_EQ(endpoint.GetFamily(), row.family) << row.text;
        EXPECT_EQ(endpoint.GetPort(), row.port) << row.text;
        CNxEndpoint copy;
        EXPECT_EQ(copy.SetAddress(endpoint.GetAddress(), endpoint.GetSize()), NX_OK);
        EXPECT_EQ(copy == endpoint, !endpoint.IsDual()) << row.text;
    }
    EXPECT_EQ(Parse("[fe80::1%lo]:1").GetText(), "[fe80::1%1]:1");
    EXPECT_EQ(Parse("[::ffff:10.0.0.1]:1"), Parse("10.0.0.1:1"));
}

TEST(CNxEndpoint, OtherTextChangesNothing) {
    CNxEndpoint endpoint = Parse("10.0.0.1:80");
    for (const char* text :
         {"", "10.0.0.1", "10.0.0.1:", ":80", "10.0.0.1:65536", "10.0.0.1:-1", "10.0.0.1%lo:1",
          "::1:80", "[::1]", "[::1]80", "[10.0.0.1]:80", "[::1:80", "[", "*80", "localhost:80",
          "[fe80::1%]:1", "[fe80::1%none-such]:1", "[fe80::1%0]:1"}) {
        EXPECT_EQ(endpoint.Set(text), NX_ERROR_INVALID_ARG) << text;
    }
    EXPECT_EQ(endpoint.Set(("unix:x" + c_longName).c_str()), NX_ERROR_INVALID_ARG);
    EXPECT_EQ(endpoint.Set(nullptr), NX_ERROR_INVALID_ARG);
    EXPECT_EQ(endpoint, CNxEndpoint(CNxInetAddr("10.0.0.1", 80)));
    EXPECT_EQ(CNxEndpoint(CNxInetAddr("name.invalid", 80)), CNxEndpoint());
}

TEST(CNxEndpoint, TakesWhatTheSystemGivesAndNothingElse) {
    CNxEndpoint endpoint;
    // Zero bytes after a path are not part of it; every byte of an abstract name is.
    ASSERT_EQ(SetUnix(endpoint, std::string("/a\0\0x", 5)), NX_OK);
    EXPECT_EQ(endpoint, Parse("unix:/a"));
    ASSERT_EQ(SetUnix(endpoint, std::string("\0a\0", 3)), NX_OK);
    EXPECT_EQ(endpoint.GetText(), std::string("unix:@a\0", 8));
    ASSERT_EQ(SetUnix(endpoint, "@a"), NX_OK);
    EXPECT_EQ(endpoint.GetText(), "unix:./@a");
    // A path without room for its zero byte, which is counted all the same.
    const std::string longest(108, 'p');
    ASSERT_EQ(SetUnix(endpoint, longest, 1), NX_OK);
    EXPECT_EQ(endpoint.GetSize(), sizeof(sockaddr_un));

    EXPECT_EQ(SetUnix(endpoint, longest, 2), NX_ERROR_INVALID_ARG);
    for (const socklen_t size : {27U, 0U}) {
        EXPECT_EQ(endpoint.SetAddress(Parse("[::1]:80").GetAddress(), size), NX_ERROR_INVALID_ARG);
    }
    EXPECT_EQ(endpoint.SetAddress(CNxEndpoint().GetAddress(), 16), NX_ERROR_INVALID_ARG);
    EXPECT_EQ(endpoint.GetUnixName(), longest);
}
