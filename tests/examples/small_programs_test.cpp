// Examples that are one file each.
#include <gtest/gtest.h>
#include <nx/net/CNxSocket.h>
#include <tests/support/ServerProcess.h>
#include <tests/support/TempFolder.h>

#include <string>
#include <thread>

namespace {

std::string FindFreePort() {
    CNxSocketUdp socket;
    CNxInetAddr address;
    EXPECT_EQ(0, socket.Open(CNxInetAddr("127.0.0.1", 0)) + socket.GetLocalAddr(address));
    return std::to_string(address.GetPort());
}

TEST(EchoServer, SendsBackEveryByteInOrderAndStopsInTheMiddle) {
    ServerProcess server(ECHO_SERVER);
    const long before = server.CountDescriptors();
    std::string text;
    while (text.size() < 3000000) {
        text += std::to_string(text.size());
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

TEST(ChatServer, TellsARoomWhatItsGuestsSayAndDropsWhoDoesNotRead) {
    ServerProcess server(CHAT_SERVER " 127.0.0.1:0 3");
    const long before = server.CountDescriptors();
    {
        const TestClient anna(server.GetPort());
        anna.Expect("", "* guest-1 is here\n");
        anna.Expect("/nick anna\r\n", "* guest-1 is now anna\n");
        const TestClient bob(server.GetPort());
        bob.Expect("", "* guest-2 is here\n");
        anna.Expect("", "* guest-2 is here\n");
        bob.Expect("/nick anna\n", "* there is a anna in lobby\n");
        bob.Expect("hello\x1b[2J\n", "guest-2: hello [2J\n");
        anna.Expect("", "guest-2: hello [2J\n");
        bob.Expect("/join den\n", "* guest-2 is here\n");
        bob.Expect("alone\n", "guest-2: alone\n");
        anna.Expect("", "* guest-2 has left\n");
        bob.Send(std::string(1001, 'x'));
        EXPECT_EQ("* lines have up to 1000 bytes\n", bob.ReceiveAll());
        // Whoever speaks on reads it all; who does not is gone before the room is told so.
        const TestClient deaf(server.GetPort(), 4096);
        deaf.Expect("", "* guest-3 is here\n");
        anna.Expect("", "* guest-3 is here\n");
        std::string line = "anna: " + std::string(900, 'x') + "\n";
        std::string heard;
        while (heard.find("* guest-3 has left\n") == std::string::npos && !HasFailure()) {
            anna.Send(line.substr(6));
            heard = anna.Receive(line.size());
        }
    }
    server.ExpectDescriptors(before);
    const TestClient last(server.GetPort());
    last.Expect("", "* guest-4 is here\n");
    server.Signal(SIGTERM);
    EXPECT_EQ("* the server stops\n", last.ReceiveAll());
    last.EndSending();
    EXPECT_EQ(0, server.Wait());
}

TEST(LineClient, KeepsItsLinesUntilThereIsAServerAndHearsItsAnswers) {
    const CTempFolder folder;
    const std::string endpoint = "unix:" + folder.Path("socket");
    const Process client("printf 'one\\ntwo\\n' | " LINE_CLIENT " " + endpoint + " 2>" +
                         folder.Path("errors"));
    while (folder.Get("errors").find("No such file or directory; again in") == std::string::npos) {
        std::this_thread::yield();
    }
    const Process server(CHAT_SERVER " " + endpoint);
    for (const char* const line : {"* guest-1 is here", "guest-1: one", "guest-1: two"}) {
        EXPECT_EQ(line, client.ReadLine());
    }
    EXPECT_NE(std::string::npos, folder.Get("errors").find("connected to " + endpoint));
}

// That the peer loses none of twenty happens once in a million runs.
TEST(ReliableSender, SendsAgainWhatWasLostUntilEverythingIsAnswered) {
    const std::string port = FindFreePort();
    ServerProcess peer(RELIABLE_SENDER " --lose 50 --listen " + port);
    int status = -1;
    const std::string output = OutputOf(
        RELIABLE_SENDER " --requests 20 --interval 10 --again 20 --timeout 30 --port " + port,
        &status);
    EXPECT_EQ(0, status);
    EXPECT_EQ(0U, output.find("requests   20 of 20 answered")) << output;
    EXPECT_EQ(std::string::npos, output.find(", 0 of them again")) << output;
    peer.Signal(SIGTERM);
    EXPECT_EQ(143, peer.Wait());
}

}  // namespace
