#include <nx/stream/CListeningSocket.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <tests/support/FailingCalls.h>
#include <tests/support/FailingNew.h>
#include <tests/support/TempFolder.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

#include "Endpoints.h"

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
    EXPECT_TRUE(IsAnswering());
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

    m_folder.Put("socket", "precious");
    EXPECT_EQ(Open(), EADDRINUSE);
    EXPECT_EQ(m_folder.Get("socket"), "precious");
    ASSERT_EQ(rename(m_path.c_str(), m_folder.Path("file").c_str()), 0);
    ASSERT_EQ(symlink("file", m_path.c_str()), 0);
    EXPECT_EQ(Open(), EADDRINUSE);
    EXPECT_TRUE(S_ISLNK(GetMode()));
    EXPECT_EQ(m_socket.GetHandle(), -1);
    EXPECT_EQ(CListeningSocket().Open(Parse("unix:/none-such/socket"), {}), NX_ERROR_FAILURE);
    EXPECT_EQ(errno, ENOENT);
}

// Servers that find the same stale path at the same time: one gets it and answers.
TEST_F(CListeningSocketAtPath, OneOfManyThatStartAtOnceGetsIt) {
    for (int round = 0; round < 100; ++round) {
        LeaveStale();
        CListeningSocket sockets[4];
        std::atomic<int> opened{0};
        std::thread threads[4];
        for (int i = 0; i < 4; ++i) {
            threads[i] =
                std::thread([&, i] { opened += sockets[i].Open(m_endpoint, {}) == NX_OK ? 1 : 0; });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        ASSERT_EQ(opened, 1);
        ASSERT_TRUE(IsAnswering());
    }
}

TEST_F(CListeningSocketAtPath, FailuresLeaveNothingBehind) {
    const int folder = open(m_folder.Path().c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(flock(folder, LOCK_EX), 0);
    EXPECT_EQ(Open(), EWOULDBLOCK);
    close(folder);
    int error = ENOMEM;
    for (long n = 0; error != 0; ++n) {
        {
            const FailingNew failing(n, FailingNew::ONCE);
            error = Open();
        }
        ASSERT_TRUE(error == 0 || error == ENOMEM) << error;
        EXPECT_EQ(m_socket.GetHandle() != -1, error == 0);
        EXPECT_EQ(GetMode() != 0, error == 0);
    }
    for (const int call : {FaultPlan::CALL_listen, FaultPlan::CALL_getsockname}) {
        m_socket.Close();
        nx_fault_plan()->calls[call].Fail(ENOBUFS, 0, 1);
        EXPECT_EQ(Open(), ENOBUFS);
        EXPECT_EQ(GetMode(), 0U);
    }
}

TEST(CListeningSocket, ServesBothFamiliesOrIPv4WhereThereIsNoOther) {
    for (const std::string text : {"*:0", "[::]:0"}) {
        CListeningSocket socket;
        ASSERT_EQ(socket.Open(Parse(text), {}), NX_OK);
        const std::string port = std::to_string(socket.GetEndpoint().GetPort());
        EXPECT_EQ(socket.GetEndpoint().GetText(), text.substr(0, text.size() - 1) + port);
        EXPECT_NE(Connect(Parse("[::1]:" + port)).GetHandle(), -1);
        EXPECT_EQ(Connect(Parse("127.0.0.1:" + port)).GetHandle() != -1, text[0] == '*');
    }
    CListeningSocket socket;
    FailingCalls calls;
    calls.Fail(FailingCalls::SOCKET, EAFNOSUPPORT, 1);
    ASSERT_EQ(socket.Open(Parse("*:0"), {}), NX_OK);
    EXPECT_EQ(socket.GetEndpoint().GetHost(), "0.0.0.0");

    CListeningSocket unnamed;
    EXPECT_EQ(unnamed.Open(Parse("unix:"), {}), NX_OK);
    EXPECT_EQ(unnamed.GetEndpoint().GetUnixName().substr(0, 1), "@");
    CListeningSocket second;
    EXPECT_EQ(second.Open(unnamed.GetEndpoint(), {}), NX_ERROR_FAILURE);
    EXPECT_EQ(errno, EADDRINUSE);
}

}  // namespace
