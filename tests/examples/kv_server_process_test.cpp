// The whole kv_server over real sockets.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <tests/examples/LocalKvServer.h>
#include <tests/support/FaultFile.h>
#include <tests/support/ServerProcess.h>
#include <tests/support/TempFolder.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

namespace {

// With one loop and with three.
class KvServer : public testing::TestWithParam<const char*> {
protected:
    explicit KvServer(std::vector<std::string> options = {}) : m_server(KV_SERVER, With(options)) {}

    static std::vector<std::string> With(std::vector<std::string> options) {
        options.insert(options.end(), {"--port", "0", "--threads", GetParam()});
        return options;
    }

    TestClient Connect(int receiveBuffer = 0) const {
        return TestClient(m_server.GetPort(), receiveBuffer);
    }

    void ExpectCleanStop() {
        m_server.Signal(SIGTERM);
        EXPECT_EQ(0, m_server.Wait());
    }

    ServerProcess m_server;
};

TEST_P(KvServer, AThousandClientsGetTheirOwnBytes) {
    const long before = m_server.CountDescriptors();
    {
        std::vector<TestClient> clients;
        std::vector<std::string> requests;
        std::vector<std::string> answers;
        for (int i = 0; i < 1000; ++i) {
            clients.push_back(Connect());
            const std::string key = "key" + std::to_string(i);
            const std::string value(static_cast<size_t>(i * 7), static_cast<char>('a' + i % 26));
            requests.push_back(ToRequest({"SET", key, value}) + "GET " + key + "\r\nINCR n" + key +
                               "\r\nECHO " + key + "\r\n");
            answers.push_back("+OK\r\n" + ToBulk(value) + ":1\r\n" + ToBulk(key));
        }
        // Everybody sends one half before anybody sends the other.
        for (const bool isFirst : {true, false}) {
            for (size_t i = 0; i < clients.size(); ++i) {
                const size_t cut = i % requests[i].size();
                clients[i].Send(isFirst ? requests[i].substr(0, cut) : requests[i].substr(cut));
            }
        }
        for (size_t i = 0; i < clients.size(); ++i) {
            ASSERT_EQ(answers[i], clients[i].Receive(answers[i].size())) << i;
        }
        m_server.ExpectDescriptors(before + 1000);
    }
    m_server.ExpectDescriptors(before);
    Connect().Expect("DBSIZE\r\n", ":2000\r\n");
    ExpectCleanStop();
}

TEST_P(KvServer, ErrorsOfTheProtocolComeBehindTheRepliesAndEndTheConnection) {
    const TestClient other = Connect();
    for (const std::string bad : {"*1\r\n$99999999\r\n", "*2000\r\n", "*1\r\n!\r\n"}) {
        const TestClient client = Connect();
        // What comes behind the error is in nobody's way, much as it may be.
        client.Send("PING\r\nECHO x\r\n" + bad + std::string(200000, 'z'));
        const std::string all = client.ReceiveAll();
        EXPECT_EQ("+PONG\r\n$1\r\nx\r\n-ERR Protocol error: ", all.substr(0, 35)) << bad;
        EXPECT_EQ(all.size() - 1, all.find('\n', 35));
        other.Expect("PING\r\n", "+PONG\r\n");
    }
    const TestClient halfClosed = Connect();
    halfClosed.Send("PING\r\nPING\r\nPIN");
    halfClosed.EndSending();
    EXPECT_EQ("+PONG\r\n+PONG\r\n", halfClosed.ReceiveAll());
    const TestClient leaving = Connect();
    leaving.Send("QUIT\r\nPING\r\n");
    EXPECT_EQ("+OK\r\n", leaving.ReceiveAll());
}

TEST_P(KvServer, AClientThatDoesNotReadIsNotReadFromAndDisturbsNobody) {
    const std::string value(1 << 20, 'v');
    const TestClient other = Connect();
    other.Expect(ToRequest({"SET", "big", value}), "+OK\r\n");
    const TestClient lazy = Connect(65536);
    // Until the server takes no more: it must not go on for ever.
    pollfd room{lazy.GetHandle(), POLLOUT, 0};
    while (poll(&room, 1, 500) == 1) {
        send(lazy.GetHandle(), "GET big\r\n", 9, MSG_DONTWAIT | MSG_NOSIGNAL);
    }
    for (int i = 0; i < 1000; ++i) {
        other.Expect("PING\r\n", "+PONG\r\n");
    }
    const std::string answer = ToBulk(value);
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(answer, lazy.Receive(answer.size())) << i;
    }
    ExpectCleanStop();
}

TEST_P(KvServer, KeysExpireUnasked) {
    const TestClient client = Connect();
    client.Expect("SET a 1 PX 30\r\nSET b 1 PX 60\r\nSET c 1 EX 100\r\n", "+OK\r\n+OK\r\n+OK\r\n");
    // DBSIZE removes nothing by itself.
    std::string size;
    do {
        client.Send("DBSIZE\r\n");
        size = client.Receive(4);
    } while (size == ":3\r\n" || size == ":2\r\n");
    EXPECT_EQ(":1\r\n", size);
    client.Expect("GET b\r\nTTL c\r\n", "$-1\r\n:100\r\n");
}

TEST_P(KvServer, SigtermAnswersWhatHasArrived) {
    std::vector<TestClient> clients;
    std::string requests;
    while (requests.size() < 1000 * 8) {
        requests += "INCR n\r\n";
    }
    for (int i = 0; i < 50; ++i) {
        clients.push_back(Connect());
        clients.back().Expect("PING\r\n", "+PONG\r\n");
    }
    for (const TestClient& client : clients) {
        client.Send(requests);
    }
    m_server.Signal(SIGTERM);
    for (TestClient& each : clients) {
        // Hung up on when it has all: else the server would wait for that.
        const TestClient client(std::move(each));
        const std::string all = client.ReceiveAll();
        EXPECT_EQ(1000, std::count(all.begin(), all.end(), '\n'));
    }
    EXPECT_EQ(0, m_server.Wait());
}

class KvServerForTwo : public KvServer {
protected:
    KvServerForTwo() : KvServer({"--max-clients", "2", "--idle-timeout=1"}) {}
};

TEST_P(KvServerForTwo, TheThirdIsToldAndOnlyASilentClientIsHungUpOn) {
    const TestClient silent = Connect();
    const TestClient talking = Connect();
    silent.Expect("PING\r\n", "+PONG\r\n");
    talking.Expect("PING\r\n", "+PONG\r\n");
    const TestClient third = Connect();
    third.Send("PING\r\n");
    EXPECT_EQ("-ERR max number of clients reached\r\n", third.ReceiveAll());
    pollfd end{silent.GetHandle(), POLLIN, 0};
    while (poll(&end, 1, 20) == 0) {
        talking.Expect("PING\r\n", "+PONG\r\n");
    }
    EXPECT_EQ("", silent.Receive(1));
    // Its place becomes free.
    std::string answer;
    while (answer != "+PONG\r\n") {
        const TestClient next = Connect();
        next.Send("PING\r\n");
        answer = next.Receive(7);
    }
    talking.Expect("PING\r\n", "+PONG\r\n");
    ExpectCleanStop();
}

constexpr const char* c_threads[] = {"1", "3"};
INSTANTIATE_TEST_SUITE_P(Threads, KvServer, testing::ValuesIn(c_threads));
INSTANTIATE_TEST_SUITE_P(Threads, KvServerForTwo, testing::ValuesIn(c_threads));

// The program installed in a home of its own.
class KvServerHome : public testing::Test {
protected:
    KvServerHome() {
        std::filesystem::create_directories(m_home.Path("bin"));
        std::filesystem::create_directories(m_home.Path("conf"));
        std::filesystem::copy_file(KV_SERVER, m_program);
    }

    void Configure(const std::string& text) const { m_home.Put("conf/kv_server.cfg", text); }

    // All files whose names hold `kind`.
    std::string ReadTrace(const std::string& kind) const {
        return OutputOf("cat " + m_home.Path("logs") + "/*" + kind + "*");
    }

    CTempFolder m_home;
    const std::string m_program = m_home.Path("bin/kv_server");
};

TEST_F(KvServerHome, ReadsItsConfigurationAgainOnHangUpAndTracesWhatHappens) {
    const std::string common = "[Server]\nport=0\nmax-clients=1\n[Trace]\nEnable=TRUE\n";
    Configure(common + "kv_server.Info=TRUE\nkv_server.Warning=TRUE\n");
    ServerProcess server(m_program);
    const long before = server.CountDescriptors();
    const auto misbehave = [&server](const std::string& bytes) {
        const TestClient client(server.GetPort());
        client.Send(bytes);
        EXPECT_NE("", client.ReceiveAll());
    };
    {
        const TestClient only(server.GetPort());
        only.Expect("PING\r\n", "+PONG\r\n");
        misbehave("PING\r\n");
    }
    // Its place is free a moment later.
    server.ExpectDescriptors(before);
    misbehave("*bad\r\n");
    server.ExpectDescriptors(before);
    Configure(common + "kv_server.Info=TRUE\nkv_server.Warning=FALSE\n");
    server.Signal(SIGHUP);
    while (ReadTrace("_info_").find("switches") == std::string::npos) {
        std::this_thread::yield();
    }
    misbehave("*worse\r\n");
    server.ExpectDescriptors(before);
    server.Signal(SIGTERM);
    EXPECT_EQ(0, server.Wait());
    const std::string trace = ReadTrace("_info_") + ReadTrace("_warning_");
    for (const char* line : {"Info:listening on 127.0.0.1:", "Info:stopping; clients ",
                             "Info:stopped; clients accepted 4, refused 1",
                             "Warning:client 2 refused: max-clients reached",
                             "Warning:client 3: Protocol error: invalid multibulk"}) {
        EXPECT_NE(std::string::npos, trace.find(line)) << line << trace;
    }
    EXPECT_EQ(std::string::npos, trace.find("client 4: Protocol"));
}

TEST_F(KvServerHome, ServersShareATraceFile) {
    const std::string shared = m_home.Path("shared.log");
    for (int i = 0; i < 2; ++i) {
        ServerProcess one(m_program, {"--port=0", "--shared-trace", shared});
        ServerProcess other(m_program, {"--port=0", "--shared-trace", shared});
        for (ServerProcess* server : {&one, &other}) {
            server->Signal(SIGTERM);
            EXPECT_EQ(0, server->Wait());
        }
    }
    EXPECT_EQ("4\n", OutputOf("grep -c Info:stopped " + shared));
}

TEST_F(KvServerHome, EndsWithAStatusThatTellsWhatIsWrong) {
    Configure("[Server]\nmax-clients=none\n");
    const std::pair<std::string, int> cases[] = {
        {m_program, 2},
        {KV_SERVER " --help", 0},
        {KV_SERVER " --port 65536", 2},
        {KV_SERVER " --bind 203.0.113.1 --port 0", 1},
    };
    for (const auto& [command, expected] : cases) {
        int status = -1;
        OutputOf(command + " 2>&1", &status);
        EXPECT_EQ(expected, status) << command;
    }
}

TEST(KvServerProgram, NoClientBecomesAStandardStream) {
    const ServerProcess server("/bin/sh", {"-c", "exec " KV_SERVER " --port 0 <&- 2>&-"});
    const TestClient client(server.GetPort());
    client.Expect("PING\r\n", "+PONG\r\n");
    const std::string stream = "/proc/" + std::to_string(server.GetPid()) + "/fd/2";
    EXPECT_EQ(std::filesystem::read_symlink(stream), "/dev/null");
}

// One that has minutes of work to do.
TEST(KvServerProgram, SigtermEndsItInFiveSecondsWhateverItDoes) {
    ServerProcess server(KV_SERVER, {"--port=0"});
    const TestClient client(server.GetPort());
    std::string sets;
    for (int i = 0; i < 200000; ++i) {
        sets += "SET key" + std::to_string(i) + " v\r\n";
    }
    std::thread sender([&] { client.Send(sets); });
    client.Receive(5 * 200000);
    sender.join();
    std::string keys;
    for (int i = 0; i < 5000; ++i) {
        keys += "KEYS nothing\r\n";
    }
    client.Send(keys);
    EXPECT_EQ("*0\r\n", client.Receive(4));
    // Others have their turn meanwhile.
    const TestClient other(server.GetPort());
    other.Expect("PING\r\n", "+PONG\r\n");
    server.Signal(SIGTERM);
    EXPECT_EQ(0, server.Wait());
    EXPECT_LT(client.ReceiveAll().size(), 4U * (5000 - 1));
}

TEST(KvServerProgram, LetsGoWhoHoldsMostWhenClientsHoldTooMuch) {
    ServerProcess server(KV_SERVER, {"--port=0", "--client-memory=100"});
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
    if (FaultFile::IsUsable()) {  // A sanitizer keeps what was freed.
        const std::string status = "/proc/" + std::to_string(server.GetPid()) + "/status";
        while (std::stol(OutputOf("awk '/VmRSS/{print $2}' " + status)) >= 40000) {
        }
    }
}

TEST(KvServerProgram, AfterAPauseInputComesBeforeIdleClientsAreDropped) {
    ServerProcess server(KV_SERVER, {"--port=0", "--idle-timeout=1"});
    const TestClient client(server.GetPort());
    for (int i = 0; i < 3; ++i) {
        client.Expect("PING\r\n", "+PONG\r\n");
        server.Signal(SIGSTOP);
        waitpid(server.GetPid(), nullptr, WUNTRACED);
        client.Send("PING\r\n");
        std::this_thread::sleep_for(std::chrono::seconds(3));
        server.Signal(SIGCONT);
        ASSERT_EQ("+PONG\r\n", client.Receive(7));
    }
}

}  // namespace
