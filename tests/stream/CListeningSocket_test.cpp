#include <nx/stream/CListeningSocket.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <tests/support/Endpoints.h>
#include <tests/support/FailingCalls.h>
#include <tests/support/TempFolder.h>
#include <unistd.h>

#include <cerrno>

namespace {

mode_t GetMode(const std::string& path) {
    struct stat file {};
    return lstat(path.c_str(), &file) == 0 ? file.st_mode : 0;
}

// That a stale one is taken over is in the tests of datagrams, which bind in the same way.
TEST(CListeningSocket, LeavesEveryPathThatIsNotItsOwn) {
    const CTempFolder folder;
    const std::string path = folder.Path("socket");
    const CNxEndpoint endpoint = Parse("unix:" + path);
    CListeningSocket first;
    CListeningSocket second;
    // 0, or errno.
    const auto openSecond = [&] { return second.Open(endpoint, {}) == NX_OK ? 0 : errno; };
    const mode_t old = umask(0077);
    EXPECT_EQ(first.Open(endpoint, {}), NX_OK);
    umask(old);
    EXPECT_EQ(GetMode(path), S_IFSOCK | 0660U) << "whatever the umask";
    EXPECT_EQ(openSecond(), EADDRINUSE);
    EXPECT_NE(Connect(endpoint).GetHandle(), -1);

    // Removed and made anew by another one meanwhile.
    ASSERT_EQ(unlink(path.c_str()), 0);
    EXPECT_EQ(openSecond(), 0);
    first.Close();
    EXPECT_NE(Connect(endpoint).GetHandle(), -1);
    second.Close();
    EXPECT_EQ(GetMode(path), 0U);

    // The lock that keeps two from finding the same path stale.
    const int locked = open(folder.Path().c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(flock(locked, LOCK_EX), 0);
    EXPECT_EQ(openSecond(), EWOULDBLOCK);
    close(locked);
    FailingCalls calls;
    nx_fault_plan()->calls[FaultPlan::CALL_listen].Fail(ENOBUFS, 0, 1);
    EXPECT_EQ(openSecond(), ENOBUFS);
    EXPECT_EQ(GetMode(path), 0U);

    ASSERT_EQ(symlink(folder.Put("file", "precious").c_str(), path.c_str()), 0);
    EXPECT_EQ(openSecond(), EADDRINUSE);
    ASSERT_EQ(rename(folder.Path("file").c_str(), path.c_str()), 0);
    EXPECT_EQ(openSecond(), EADDRINUSE);
    EXPECT_EQ(folder.Get("socket"), "precious");
}

TEST(CListeningSocket, ServesIPv4WhereThereIsNothingElse) {
    CListeningSocket socket;
    FailingCalls calls;
    calls.Fail(FailingCalls::SOCKET, EAFNOSUPPORT, 1);
    ASSERT_EQ(socket.Open(Parse("*:0"), {}), NX_OK);
    EXPECT_EQ(socket.GetEndpoint().GetHost(), "0.0.0.0");
}

}  // namespace
