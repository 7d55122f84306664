// The first signal, reloads, standard streams and addresses that fail are in the tests of the
// examples, servers that use all of it.
#include <gtest/gtest.h>
#include <nx/net/CNxSocket.h>
#include <tests/support/Endpoints.h>
#include <tests/support/ServerProcess.h>
#include <tests/support/TempFolder.h>

#include <string>

namespace {

TEST(Server, WhatIsUnderWayEndsWithTheLimitOrAnotherSignal) {
    for (const std::string mode : {"limit", "second signal"}) {
        ServerProcess server(SERVER_PROGRAM " '" + mode + "'");
        const TestClient idle(server.GetPort());
        const TestClient client(server.GetPort());
        client.Expect("b", "+");
        idle.Expect("s", "+stop");
        EXPECT_EQ("stop", client.Receive(4));
        if (mode != "limit") {
            // Still served.
            client.Expect("b", "+");
            server.Signal(SIGTERM);
        }
        EXPECT_EQ("", client.Receive(1));
        EXPECT_EQ(0, server.Wait());
    }
}

TEST(Server, ALoopThatEndsOrIsBlockedIsStatusOne) {
    EXPECT_EQ(1, ServerProcess(SERVER_PROGRAM " 'loop ends'").Wait());
    ServerProcess server(SERVER_PROGRAM);
    TestClient(server.GetPort()).Send("p");
    EXPECT_EQ(1, server.Wait());
}

TEST(Server, OpensASocketForDatagramsOnItsMainThread) {
    ServerProcess server(SERVER_PROGRAM);
    const CNxEndpoint endpoint = Parse(server.ReadLine());
    CNxSocketBase client;
    ASSERT_EQ(0, client.Open(AF_INET, SOCK_DGRAM, 0, 0));
    ASSERT_EQ(0, connect(client.GetHandle(), endpoint.GetAddress(), endpoint.GetSize()));
    char answer[8] = "hello";
    EXPECT_EQ(5, send(client.GetHandle(), answer, 5, 0));
    EXPECT_EQ(5, recv(client.GetHandle(), answer, sizeof(answer), 0));
}

TEST(Server, AsADaemonIsWaitedForUntilItServesOrHasFailed) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "it has a thread of its own";
#endif
    EXPECT_EQ(1, ServerProcess(SERVER_PROGRAM " 'no daemon'").Wait());
    ServerProcess starter(SERVER_PROGRAM " daemon");
    EXPECT_EQ(0, starter.Wait());
    TestClient(starter.GetPort()).Expect("s", "+stop");
}

// By then it has made the file. The forked child comes back to a loop that is not its own.
TEST(Server, ReloadsTheTraceSwitchesAndEndsAChildThatIsForkedThen) {
    const CTempFolder folder;
    setenv("NXBASE_CONF_DIR", folder.Path("").c_str(), 1);
    setenv("NXBASE_LOG_DIR", folder.Path("logs").c_str(), 1);
    folder.Put("server_program.cfg", "[Trace]\n");
    const ServerProcess server(SERVER_PROGRAM);
    folder.Put("server_program.cfg", "[Trace]\nEnable=TRUE\nserver_program.Info=TRUE\n");
    server.Signal(SIGHUP);
    static_cast<void>(server.ReadLine());
    EXPECT_EQ("its child ended with 1", server.ReadLine());
    EXPECT_FALSE(std::filesystem::is_empty(folder.Path("logs")));
    TestClient(server.GetPort()).Expect("b", "+");
    unsetenv("NXBASE_CONF_DIR");
    unsetenv("NXBASE_LOG_DIR");
}

}  // namespace
