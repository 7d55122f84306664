// The whole kv_server over real sockets.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <tests/examples/LocalKvServer.h>
#include <tests/support/ServerProcess.h>
#include <tests/support/TempFolder.h>

#include <string>
#include <thread>
#include <vector>

namespace {

std::string Repeat(std::string_view text, int count) {
    std::string all;
    for (; count > 0; --count) {
        all += text;
    }
    return all;
}

struct KvServer : testing::Test {
    ServerProcess m_server{KV_SERVER " --port=0 --threads=3"};
    const TestClient m_client{m_server.GetPort()};
};

TEST_F(KvServer, ErrorsOfTheProtocolComeBehindTheRepliesAndEndTheConnection) {
    // What comes behind the error is in nobody's way, much as it may be.
    m_client.Send("PING\r\n*2000\r\n" + std::string(200000, 'z'));
    EXPECT_EQ("+PONG\r\n-ERR Protocol error: invalid multibulk length\r\n", m_client.ReceiveAll());
    const TestClient quits(m_server.GetPort());
    quits.Send("QUIT\r\nPING\r\n");
    EXPECT_EQ("+OK\r\n", quits.ReceiveAll());
}

TEST_F(KvServer, AClientThatDoesNotReadIsNotReadFromAndDisturbsNobody) {
    const std::string value(1 << 20, 'v');
    m_client.Expect(ToRequest({"SET", "big", value}), "+OK\r\n");
    const TestClient lazy(m_server.GetPort(), 65536);
    // Until the server takes no more: it must not go on for ever.
    pollfd room{lazy.GetHandle(), POLLOUT, 0};
    while (poll(&room, 1, 500) == 1) {
        send(lazy.GetHandle(), "GET big\r\n", 9, MSG_DONTWAIT | MSG_NOSIGNAL);
    }
    m_client.Expect("PING\r\n", "+PONG\r\n");
    const std::string answers = Repeat(ToBulk(value), 100);
    EXPECT_TRUE(answers == lazy.Receive(answers.size()));
}

TEST_F(KvServer, KeysExpireUnasked) {
    m_client.Expect("SET a 1 PX 30\r\nSET c 1 EX 100\r\n", "+OK\r\n+OK\r\n");
    // DBSIZE removes nothing by itself.
    do {
        m_client.Send("DBSIZE\r\n");
    } while (m_client.Receive(4) == ":2\r\n");
    m_client.Expect("GET a\r\nTTL c\r\nDBSIZE\r\n", "$-1\r\n:100\r\n:1\r\n");
}

TEST_F(KvServer, SigtermAnswersWhatHasArrived) {
    std::vector<TestClient> clients;
    for (int i = 0; i < 50; ++i) {
        clients.emplace_back(m_server.GetPort());
        clients.back().Expect("PING\r\n", "+PONG\r\n");
    }
    for (const TestClient& client : clients) {
        client.Send(Repeat("INCR n\r\n", 1000));
    }
    m_server.Signal(SIGTERM);
    m_client.EndSending();
    for (const TestClient& client : clients) {
        const std::string all = client.ReceiveAll();
        EXPECT_EQ(1000, std::count(all.begin(), all.end(), '\n'));
        // Else the server would wait for that.
        client.EndSending();
    }
    EXPECT_EQ(0, m_server.Wait());
}

TEST(KvServerProgram, TheThirdOfTwoIsToldAndOnlyASilentClientIsHungUpOn) {
    const ServerProcess server(KV_SERVER " --port=0 --max-clients 2 --idle-timeout=2");
    const TestClient silent(server.GetPort());
    const TestClient talking(server.GetPort());
    silent.Expect("PING\r\n", "+PONG\r\n");
    talking.Expect("PING\r\n", "+PONG\r\n");
    const TestClient third(server.GetPort());
    third.Send("PING\r\n");
    EXPECT_EQ("-ERR max number of clients reached\r\n", third.ReceiveAll());
    // After a pause, too, when input waits and all times are over.
    server.Signal(SIGSTOP);
    waitpid(server.GetPid(), nullptr, WUNTRACED);
    talking.Send("PING\r\n");
    std::this_thread::sleep_for(std::chrono::seconds(3));
    server.Signal(SIGCONT);
    talking.Expect("", "+PONG\r\n");
    talking.Expect("PING\r\n", "+PONG\r\n");
    EXPECT_EQ("", silent.ReceiveAll());
    // Its place becomes free.
    std::string answer;
    while (answer != "+PONG\r\n") {
        const TestClient next(server.GetPort());
        next.Send("PING\r\n");
        answer = next.Receive(7);
    }
}

// In a home of its own.
TEST(KvServerProgram, ReadsItsConfigurationAgainOnHangUpAndTracesWhatHappens) {
    const CTempFolder home;
    OutputOf("cd " + home.Path() + " && mkdir bin conf && cp " KV_SERVER " bin");
    const std::string common = "[Server]\nport=0\n[Trace]\nEnable=TRUE\nkv_server.Info=TRUE\n";
    const auto readTrace = [&] { return OutputOf("cat " + home.Path("logs") + "/*"); };
    home.Put("conf/kv_server.cfg", common + "kv_server.Warning=TRUE\n");
    ServerProcess server(home.Path("bin/kv_server"));
    TestClient(server.GetPort()).Expect("*bad\r\n", "-ERR");
    home.Put("conf/kv_server.cfg", common + "kv_server.Warning=FALSE\n");
    server.Signal(SIGHUP);
    while (readTrace().find("switches") == std::string::npos) {
        std::this_thread::yield();
    }
    TestClient(server.GetPort()).Expect("*worse\r\n", "-ERR");
    server.Signal(SIGTERM);
    EXPECT_EQ(0, server.Wait());
    const std::string trace = readTrace();
    EXPECT_NE(std::string::npos, trace.find("Info:stopped; clients accepted 2, ")) << trace;
    EXPECT_NE(std::string::npos, trace.find("Warning:client 1: Protocol error: ")) << trace;
    EXPECT_EQ(std::string::npos, trace.find("client 2: Protocol")) << trace;
}

// One that has minutes of work to do.
TEST(KvServerProgram, SigtermEndsItInFiveSecondsWhateverItDoes) {
    ServerProcess server(KV_SERVER " --port=0");
    const TestClient client(server.GetPort());
    std::string sets;
    for (int i = 0; i < 200000; ++i) {
        sets += "SET key" + std::to_string(i) + " v\r\n";
    }
    std::thread sender([&] { client.Send(sets); });
    client.Receive(5 * 200000);
    sender.join();
    client.Expect(Repeat("KEYS nothing\r\n", 5000), "*0\r\n");
    // Others have their turn meanwhile.
    const TestClient other(server.GetPort());
    other.Expect("PING\r\n", "+PONG\r\n");
    server.Signal(SIGTERM);
    EXPECT_EQ(0, server.Wait());
    EXPECT_LT(client.ReceiveAll().size(), 4U * (5000 - 1));
}

TEST(KvServerProgram, LetsGoWhoHoldsMostWhenClientsHoldTooMuch) {
    ServerProcess server(KV_SERVER " --port=0 --client-memory=100");
    const TestClient other(server.GetPort());
    other.Expect("PING\r\n", "+PONG\r\n");
    std::vector<TestClient> clients;
    for (size_t i = 0; i < 10; ++i) {
        clients.emplace_back(server.GetPort());
        clients.back().Send("*2\r\n$4\r\nECHO\r\n$16777216\r\n" +
                            std::string((15UL << 20) + i, 'x'));
    }
    // What one has held has gone when the next is dropped: those that are left fit.
    int dropped = 0;
    for (const TestClient& client : clients) {
        pollfd end{client.GetHandle(), POLLIN, 0};
        dropped += poll(&end, 1, 500) == 1;
    }
    EXPECT_GE(dropped, 4);
    EXPECT_LT(dropped, 10);
    other.Expect("PING\r\n", "+PONG\r\n");
    clients.clear();
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    // A sanitizer keeps what was freed.
    const std::string status = "/proc/" + std::to_string(server.GetPid()) + "/status";
    while (std::stol(OutputOf("awk '/VmRSS/{print $2}' " + status)) >= 40000) {
    }
#endif
}

}  // namespace
