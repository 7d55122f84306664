#include <gtest/gtest.h>
#include <tests/support/ServerProcess.h>

#include <memory>
#include <string>

namespace {

TEST(Server, ReloadsAndEndsWithZeroWhenItIsTold) {
    for (const int signo : {SIGTERM, SIGINT, 0}) {
        ServerProcess server(SERVER_PROGRAM, {"no streams"});
        auto client = std::make_unique<TestClient>(server.GetPort());
        server.Signal(SIGHUP);
        std::string reloads;
        while (reloads != "1") {
            client->Send("r");
            reloads = client->Receive(1);
            ASSERT_NE("", reloads);
        }
        // Not the client.
        const auto input = "/proc/" + std::to_string(server.GetPid()) + "/fd/0";
        EXPECT_EQ("/dev/null", std::filesystem::read_symlink(input));
        if (signo != 0) {
            server.Signal(signo);
        } else {
            client->Expect("s", "+");
        }
        EXPECT_EQ("stop", client->ReceiveAll());
        client.reset();
        EXPECT_EQ(0, server.Wait());
    }
}

TEST(Server, WhatIsUnderWayEndsWithTheLimitOrAnotherSignal) {
    for (const std::string mode : {"limit", "second signal"}) {
        ServerProcess server(SERVER_PROGRAM, {mode});
        const TestClient client(server.GetPort());
        client.Expect("b", "+");
        server.Signal(SIGTERM);
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

TEST(Server, FailureIsStatusOne) {
    for (const std::string mode :
         {"address in use", "no endpoint", "no certificate", "loop ends"}) {
        EXPECT_EQ(1, ServerProcess(SERVER_PROGRAM, {mode}).Wait()) << mode;
    }
    ServerProcess server(SERVER_PROGRAM);
    TestClient(server.GetPort()).Send("p");
    EXPECT_EQ(1, server.Wait());
}

}  // namespace
