#include <gtest/gtest.h>
#include <tests/support/ServerProcess.h>

#include <memory>
#include <string>

namespace {

TEST(Server, ReloadsAndEndsWithZeroWhenItIsTold) {
    for (const int signo : {SIGTERM, SIGINT, 0}) {
        ServerProcess server(SERVER_PROGRAM);
        auto client = std::make_unique<TestClient>(server.GetPort());
        server.Signal(SIGHUP);
        std::string reloads;
        while (reloads != "1") {
            client->Send("r");
            reloads = client->Receive(1);
            ASSERT_NE("", reloads);
        }
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
    for (const std::string mode : {"address in use", "no endpoint", "loop ends"}) {
        EXPECT_EQ(1, ServerProcess(SERVER_PROGRAM, {mode}).Wait()) << mode;
    }
}

TEST(Server, ABlockedLoopDoesNotKeepTheProcess) {
    ServerProcess server(SERVER_PROGRAM);
    const TestClient blocked(server.GetPort());
    blocked.Send("p");
    EXPECT_EQ(1, server.Wait());
}

TEST(Server, MissingStandardStreamsAreNoConnections) {
    ServerProcess server(SERVER_PROGRAM, {"no streams"});
    const long before = server.CountDescriptors();
    {
        const TestClient client(server.GetPort());
        client.Expect("r", "0");
        for (const char* stream : {"/fd/0", "/fd/2"}) {
            const auto path = "/proc/" + std::to_string(server.GetPid()) + stream;
            EXPECT_EQ("/dev/null", std::filesystem::read_symlink(path));
        }
    }
    server.ExpectDescriptors(before);
    server.Signal(SIGTERM);
    EXPECT_EQ(0, server.Wait());
}

}  // namespace
