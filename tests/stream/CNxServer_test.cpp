// The first signal, reloads, standard streams and addresses that fail are in the tests of the
// examples, servers that use all of it.
#include <gtest/gtest.h>
#include <tests/support/ServerProcess.h>

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

}  // namespace
