#include <gtest/gtest.h>
#include <tests/support/ServerProcess.h>

#include <string>
#include <thread>

namespace {

TEST(EchoServer, SendsBackEveryByteInOrderAndStopsInTheMiddle) {
    ServerProcess server(ECHO_SERVER);
    const long before = server.CountDescriptors();
    std::string text;
    for (int i = 0; i < 500000; ++i) {
        text += std::to_string(i);
    }
    {
        // A small window: the server must stop reading again and again.
        const TestClient client(server.GetPort(), 4096);
        std::thread sender([&] { client.Send(text); });
        EXPECT_EQ(text, client.Receive(text.size()));
        sender.join();
    }
    server.ExpectDescriptors(before);
    const TestClient waiting(server.GetPort());
    waiting.Expect("x", "x");
    server.Signal(SIGINT);
    EXPECT_EQ(0, server.Wait());
    EXPECT_EQ("", waiting.Receive(1));
}

}  // namespace
