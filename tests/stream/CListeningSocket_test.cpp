#include <nx/stream/CListeningSocket.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <tests/support/Endpoints.h>
#include <tests/support/FailingCalls.h>
#include <tests/support/FailingNew.h>
#include <tests/support/TempFolder.h>
#include <unistd.h>

#include <cerrno>

namespace {

class CListeningSocketAtPath : public ::testing::Test {
protected:
    // The file of a server that has died.
    void LeaveStale() const {
        CNxSocketBase dead;
        ASSERT_EQ(dead.Open(AF_UNIX, SOCK_STREAM, 0, 0), 0);
        ASSERT_EQ(bind(dead.GetHandle(), m_endpoint.GetAddress(), m_endpoint.GetSize()), 0);
    }

    // 0, or errno.
    int Open() { return m_socket.Open(m_endpoint, {}) == NX_OK ? 0 : errno; }

    mode_t GetMode() const {
        struct stat file {};
        return lstat(m_path.c_str(), &file) == 0 ? file.st_mode : 0;
    }

    bool IsAnswering() const { return Connect(m_endpoint).GetHandle() != -1; }

    const CTempFolder m_folder;
    const std::string m_path = m_folder.Path("socket");
    const CNxEndpoint m_endpoint = Parse("unix:" + m_path);
    CListeningSocket m_socket;
};

TEST_F(CListeningSocketAtPath, TakesOverAStalePathAndLeavesEveryOther) {
    LeaveStale();
    const mode_t old = umask(0077);
    EXPECT_EQ(Open(), 0);
    umask(old);
    EXPECT_EQ(GetMode(), S_IFSOCK | 0660U) << "whatever the umask";
    CListeningSocket second;
    EXPECT_EQ(second.Open(m_endpoint, {}), NX_ERROR_FAILURE);
    EXPECT_EQ(errno, EADDRINUSE);
    EXPECT_TRUE(IsAnswering());

    // Removed and made anew by another one meanwhile.
    ASSERT_EQ(unlink(m_path.c_str()), 0);
    ASSERT_EQ(second.Open(m_endpoint, {}), NX_OK);
    m_socket.Close();
    EXPECT_TRUE(IsAnswering());
    second.Close();
    EXPECT_EQ(GetMode(), 0U);

    ASSERT_EQ(symlink(m_folder.Put("file", "precious").c_str(), m_path.c_str()), 0);
    EXPECT_EQ(Open(), EADDRINUSE);
    ASSERT_EQ(rename(m_folder.Path("file").c_str(), m_path.c_str()), 0);
    EXPECT_EQ(Open(), EADDRINUSE);
    EXPECT_EQ(m_folder.Get("socket"), "precious");
}

TEST_F(CListeningSocketAtPath, FailuresLeaveNothingBehind) {
    // The lock that keeps two from finding the same path stale.
    const int folder = open(m_folder.Path().c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(flock(folder, LOCK_EX), 0);
    EXPECT_EQ(Open(), EWOULDBLOCK);
    close(folder);
    for (const int call : {FaultPlan::CALL_listen, FaultPlan::CALL_getsockname}) {
        nx_fault_plan()->calls[call].Fail(ENOBUFS, 0, 1);
        EXPECT_EQ(Open(), ENOBUFS);
        EXPECT_EQ(GetMode(), 0U);
    }
    int error = ENOMEM;
    for (long n = 0; error == ENOMEM; ++n) {
        EXPECT_EQ(GetMode(), 0U);
        const FailingNew failing(n, FailingNew::ONCE);
        error = Open();
    }
    EXPECT_EQ(error, 0);
}

TEST(CListeningSocket, ServesBothFamiliesOrIPv4WhereThereIsNoOther) {
    for (const char* text : {"*:0", "[::]:0"}) {
        CListeningSocket socket;
        ASSERT_EQ(socket.Open(Parse(text), {}), NX_OK);
        const std::string port = std::to_string(socket.GetEndpoint().GetPort());
        EXPECT_EQ(socket.GetEndpoint().IsDual(), *text == '*');
        EXPECT_NE(Connect(Parse("[::1]:" + port)).GetHandle(), -1);
        EXPECT_EQ(Connect(Parse("127.0.0.1:" + port)).GetHandle() != -1, *text == '*');
    }
    CListeningSocket socket;
    FailingCalls calls;
    calls.Fail(FailingCalls::SOCKET, EAFNOSUPPORT, 1);
    ASSERT_EQ(socket.Open(Parse("*:0"), {}), NX_OK);
    EXPECT_EQ(socket.GetEndpoint().GetHost(), "0.0.0.0");
}

}  // namespace
