#include <common/CallEvent.h>
#include <gtest/gtest.h>
#include <kv_load/LatencyHistogram.h>
#include <kv_load/LoadClient.h>
#include <kv_load/Options.h>
#include <kv_load/Pipeline.h>
#include <kv_load/Summary.h>
#include <kv_load/Workload.h>
#include <kv_server/CommandRunner.h>
#include <kv_server/RequestReader.h>
#include <nx/net/CNxInetAddr.h>
#include <nx/net/CNxSocket.h>
#include <nx/thread/CNxThread.h>
#include <nx/thread/CNxThreadManager.h>
#include <sys/socket.h>
#include <tests/examples/TakeText.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <functional>
#include <future>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using namespace examples;
using namespace kv_load;

TEST(LatencyHistogramTest, QuantilesFollowASortedList) {
    std::mt19937_64 random(7);
    std::vector<std::uint64_t> model;
    LatencyHistogram histogram;
    for (int i = 0; i < 12345; ++i) {
        const std::uint64_t value = random() >> (24 + random() % 40);
        model.push_back(value);
        histogram.Record(static_cast<std::int64_t>(value));
    }
    std::sort(model.begin(), model.end());
    EXPECT_EQ(model.size(), histogram.GetCount());
    EXPECT_EQ(model.back(), histogram.GetMax());
    for (const unsigned perMille : {1U, 250U, 500U, 990U, 999U, 1000U}) {
        const std::uint64_t exact = model[(model.size() * perMille + 999) / 1000 - 1];
        const std::uint64_t told = histogram.GetQuantile(perMille);
        EXPECT_GE(told, exact) << perMille;
        EXPECT_LE(told, exact + exact / 128) << perMille;
    }
}

std::string Parse(std::vector<const char*> arguments, Options& options) {
    arguments.insert(arguments.begin(), "kv_load");
    return ParseOptions(static_cast<int>(arguments.size()), arguments.data(), options);
}

TEST(OptionsTest, SaysWhatIsWrong) {
    const std::vector<std::pair<std::vector<const char*>, std::string>> cases = {
        {{}, "--port is missing"},
        {{"--port"}, "--port needs a value"},
        {{"--port", "0"}, "--port takes a number from 1 to 65535, not '0'"},
        {{"--port=65536"}, "--port takes a number from 1 to 65535, not '65536'"},
        {{"--requests=-1"}, "not '-1'"},
        {{"--requests=99999999999999999999999"}, "--requests takes a number"},
        {{"--pipeline", "1x"}, "not '1x'"},
        {{"--pipeline="}, "not ''"},
        {{"--prot", "1"}, "unknown option '--prot'"},
        {{"7000"}, "unknown option '7000'"},
        {{"--port=1", "--host=localhost"}, "not 'localhost'"},
        {{"--port=1", "--keys=9", "--connections=10"}, "--keys must be at least --connections"},
    };
    for (const auto& [arguments, expected] : cases) {
        Options options;
        const std::string error = Parse(arguments, options);
        EXPECT_NE(std::string::npos, error.find(expected)) << error << " / " << expected;
    }
}

// The server that the client is made for, without its network.
class ModelServer {
public:
    std::string Answer(const std::string& requests) {
        m_reader.Take(requests, m_batch);
        m_runner.Run(m_batch);
        return TakeText(m_batch.replies);
    }

private:
    kv_server::KvStore m_store;
    kv_server::Stats m_stats;
    kv_server::CommandRunner m_runner{m_store, m_stats};
    kv_server::RequestReader m_reader;
    kv_server::Batch m_batch;
};

struct PipelineTest : testing::Test {
    static constexpr std::size_t c_depth = 16;

    // Fills the pipeline; the bytes of the new requests.
    std::string Fill(Pipeline& pipeline, std::int64_t sentAt) const {
        std::string requests;
        std::vector<char> bytes(m_workload.GetMaxRequestSize());
        while (!pipeline.IsFull()) {
            requests.append(bytes.data(), pipeline.WriteNext(bytes.data()));
        }
        pipeline.MarkSent(sentAt);
        return requests;
    }

    std::string FillAndAnswer(std::int64_t sentAt) {
        return m_server.Answer(Fill(m_pipeline, sentAt));
    }

    Workload m_workload{"load:test:", 40, 10, 21};
    Pipeline m_pipeline{m_workload, c_depth};
    ModelServer m_server;
    LatencyHistogram m_latency;
};

TEST_F(PipelineTest, RightRepliesPassHoweverTheyAreCut) {
    std::mt19937 random(11);
    std::string replies;
    for (std::int64_t turn = 0; turn < 400; ++turn) {
        replies += FillAndAnswer(turn);
        // All but a part of the last replies comes before the next requests.
        while (replies.size() > 30) {
            const std::size_t part = 1 + random() % 40 % replies.size();
            ASSERT_TRUE(m_pipeline.Check(replies.data(), part, turn + 2, m_latency))
                << m_pipeline.DescribeMismatch();
            replies.erase(0, part);
        }
    }
    ASSERT_TRUE(m_pipeline.Check(replies.data(), replies.size(), 402, m_latency));
    EXPECT_TRUE(m_pipeline.IsEmpty());
    EXPECT_GE(m_latency.GetQuantile(0), 2U);
    EXPECT_LE(m_latency.GetMax(), 4U);
    EXPECT_GT(m_latency.GetCount(), 5000U);
}

TEST_F(PipelineTest, EveryWrongByteIsFound) {
    // On to a state with values to read.
    for (int turn = 0; turn < 3; ++turn) {
        const std::string replies = FillAndAnswer(0);
        ASSERT_TRUE(m_pipeline.Check(replies.data(), replies.size(), 0, m_latency));
    }
    const Workload workload = m_workload;
    const std::string replies = FillAndAnswer(0);
    for (std::size_t wrong = 0; wrong < replies.size(); ++wrong) {
        Workload again = workload;
        Pipeline pipeline(again, c_depth);
        Fill(pipeline, 0);
        std::string bytes = replies;
        bytes[wrong] = static_cast<char>(bytes[wrong] ^ 1);
        const std::size_t cut = wrong / 2;
        ASSERT_TRUE(pipeline.Check(bytes.data(), cut, 0, m_latency));
        ASSERT_FALSE(pipeline.Check(bytes.data() + cut, bytes.size() - cut, 0, m_latency)) << wrong;
        EXPECT_NE("", pipeline.DescribeMismatch());
    }
}

// Serves every connection on a thread of its own; `fault` may change what is answered to what was
// read in one go, and hangs up by answering false.
class FaultyServer {
public:
    using Fault = std::function<bool(std::string& replies)>;

    explicit FaultyServer(Fault fault) : m_fault(std::move(fault)) {
        EXPECT_EQ(0, m_listener.Open(0, CNxInetAddr("127.0.0.1", 0)));
        EXPECT_EQ(0, listen(m_listener.GetHandle(), 64));
        m_acceptor = std::thread([this] { Accept(); });
    }

    ~FaultyServer() {
        shutdown(m_listener.GetHandle(), SHUT_RDWR);
        m_acceptor.join();
        for (std::thread& thread : m_threads) {
            thread.join();
        }
    }

    std::uint64_t GetPort() const {
        CNxInetAddr address;
        m_listener.GetLocalAddr(address);
        return address.GetPort();
    }

private:
    void Accept() {
        for (int fd = 0; (fd = accept(m_listener.GetHandle(), nullptr, nullptr)) != -1;) {
            m_threads.emplace_back([this, fd] { Serve(fd); });
        }
    }

    void Serve(int fd) {
        CNxSocketBase socket;
        socket.SetHandle(fd);
        ModelServer model;
        char bytes[4096];
        for (ssize_t size = 0; (size = recv(fd, bytes, sizeof(bytes), 0)) > 0;) {
            std::string replies = model.Answer({bytes, static_cast<std::size_t>(size)});
            const bool goOn = m_fault(replies);
            send(fd, replies.data(), replies.size(), MSG_NOSIGNAL);
            if (!goOn) {
                return;
            }
        }
    }

    const Fault m_fault;
    CNxSocketTcp m_listener;
    std::thread m_acceptor;
    std::vector<std::thread> m_threads;
};

struct LoadClientTest : testing::Test {
    LoadClientTest() {
        options.connections = 4;
        options.requests = 5000;
        options.keys = 100;
    }

    // A whole run on a reactor thread; standard error is kept in `messages`.
    void Run(std::uint64_t port) {
        options.port = port;
        CNxThreadManager* const threads = CNxThreadManager::Instance();
        CNxThread* thread = nullptr;
        ASSERT_EQ(NX_OK,
                  threads->CreateReactorThread(threads->GetAndIncreamUserType(),
                                               CNxThreadManager::CreateNetworkReactor(), thread));
        testing::internal::CaptureStderr();
        std::promise<void> ended;
        LoadClient client(options, *thread->GetReactor(), [&ended] { ended.set_value(); });
        CallOn(*thread->GetEventQueue(), [&client] { client.Start(); });
        ended.get_future().wait();
        CallOn(*thread->GetEventQueue(), [&client] { client.Close(); });
        thread->Stop(nullptr);
        thread->Join();
        thread->Destory(0);
        messages = testing::internal::GetCapturedStderr();
        failed = client.GetProgress().failed;
        answered = client.GetProgress().latency.GetCount();
        status = GetExitStatus(options, client.GetProgress(), 0);
    }

    bool HasMessage(const char* text) const { return messages.find(text) != std::string::npos; }

    Options options;
    std::string messages;
    std::uint64_t failed = 0;
    std::uint64_t answered = 0;
    int status = -1;
};

TEST_F(LoadClientTest, AnswersOfARightServerPass) {
    FaultyServer server([](std::string&) { return true; });
    Run(server.GetPort());
    EXPECT_EQ(0, status) << messages;
    EXPECT_EQ(5000U, answered);
}

TEST_F(LoadClientTest, AWrongReplyCostsOneConnectionAndTheOthersGoOn) {
    std::atomic<int> left{100};
    FaultyServer server([&left](std::string& replies) {
        if (--left == 0) {
            replies.replace(0, 1, "-ERR ");
        }
        return true;
    });
    Run(server.GetPort());
    EXPECT_EQ(1, status);
    EXPECT_EQ(1U, failed);
    EXPECT_TRUE(HasMessage("wrong reply to ")) << messages;
    EXPECT_TRUE(HasMessage("came \"-ERR ")) << messages;
    EXPECT_GE(answered, options.requests - options.pipeline);
}

TEST_F(LoadClientTest, ASilentServerIsStalled) {
    options.stallTimeout = 1;
    FaultyServer server([](std::string& replies) {
        replies.clear();
        return true;
    });
    Run(server.GetPort());
    EXPECT_EQ(1, status);
    EXPECT_EQ(4U, failed);
    EXPECT_TRUE(HasMessage("stalled, no sign of life for 1 s; the server owes 16 replies"))
        << messages;
}

}  // namespace
