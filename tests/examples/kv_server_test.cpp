// The pieces of kv_server without a network.
#include <gtest/gtest.h>
#include <tests/examples/LocalKvServer.h>
#include <tests/support/FailingNew.h>

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace kv_server;

// That they do so however they are cut is fuzzed.
TEST(KvRequestParser, MalformedInputIsNamedBehindWhatWasRight) {
    const std::string good = ToRequest({"PING"});
    const std::pair<std::string, std::string> cases[] = {
        {"*1025\r\n", "invalid multibulk length"},
        {"*" + std::string(64, '1'), "too big mbulk count string"},
        {"*1\r\n\x1B[2J\r\n", "expected '$', got '?'"},
        {"*1\r\n$16777217\r\n", "invalid bulk length"},
        {"*1\r\n$4\r\nPINGPING\r\n", "expected CRLF after bulk string"},
        {"'a'b\r\n", "unbalanced quotes in request"},
        {std::string(c_maxInline + 2, 'a'), "too big inline request"},
    };
    for (const auto& [input, error] : cases) {
        EXPECT_EQ("+PONG\r\n-ERR Protocol error: " + error + "\r\n",
                  LocalKvServer().Answer(good + input + good));
    }
}

// Random operations against a map that knows when each key dies.
TEST(KvStoreModel, KeysExpireAndOnlyThose) {
    struct Entry {
        std::string value;
        std::int64_t dies;
    };
    constexpr std::int64_t c_never = INT64_MAX;
    KvStore store;
    std::map<std::string, Entry> model;
    std::mt19937 random(42);
    std::int64_t now = 0;
    for (int i = 0; i < 100000; ++i) {
        const std::string key = "k" + std::to_string(random() % 50);
        const auto alive = model.find(key);
        const bool isAlive = alive != model.end();
        const auto what = random() % 5;
        if (what == 0) {
            const bool keep = random() % 2 == 0;
            const std::string value(random() % 3 == 0 ? 5000 : 5, 'v');
            store.Set(key, value, keep ? KvStore::c_keepExpiry : KvStore::c_never);
            model[key] = {value, keep && isAlive ? alive->second.dies : c_never};
        } else if (what == 1) {
            const std::int64_t dies = now + 1 + static_cast<std::int64_t>(random() % 20);
            ASSERT_EQ(isAlive, store.SetExpiry(key, dies));
            if (isAlive) {
                alive->second.dies = dies;
            }
        } else if (what == 2) {
            store.RemoveExpired(random() % 5);
            now += random() % 3;
            store.SetTime(now);
            for (auto at = model.begin(); at != model.end();) {
                at = at->second.dies <= now ? model.erase(at) : std::next(at);
            }
        } else if (what == 3) {
            ASSERT_EQ(model.erase(key) == 1, store.Delete(key));
        } else {
            const Value* const found = store.Find(key);
            ASSERT_EQ(isAlive, found != nullptr);
            ASSERT_EQ(isAlive ? alive->second.value : "", found ? found->GetBytes() : "");
            ASSERT_EQ(isAlive ? alive->second.dies : c_never,
                      store.GetExpiry(key).value_or(c_never));
        }
    }
    store.RemoveExpired(1000);
    EXPECT_EQ(model.size(), store.GetSize());
    EXPECT_EQ(std::count_if(model.begin(), model.end(),
                            [](const auto& entry) { return entry.second.dies != c_never; }),
              static_cast<long>(store.GetExpiringCount()));
}

struct KvCommands : testing::Test, LocalKvServer {};

TEST_F(KvCommands, AnswerAsTheyShould) {
    const std::string bytes("\0\r\n$5\r\n*1\xFF", 11);
    const std::string large(9000, 'v');
    const std::string notANumber = "-ERR value is not an integer or out of range\r\n";
    const std::string tooLong = "-ERR pattern takes too long to match\r\n";
    const std::pair<std::string, std::string> dialogue[] = {
        {"*0\r\n\r\n*-1\r\n" + ToRequest({"ECHO", large}), ToBulk(large)},
        {ToRequest({"SET", "a b", bytes}) + "  dbsize \nget 'a b'\r\n",
         "+OK\r\n:1\r\n" + ToBulk(bytes)},
        {"set\ta\" '' \r\nGET a\"\r\nflushall\r\n", "+OK\r\n$0\r\n\r\n+OK\r\n"},
        {"SET k v\r\nSET k w NX\r\nGET k\r\n", "+OK\r\n$-1\r\n$1\r\nv\r\n"},
        {"SET n 1 XX\r\nEXISTS n\r\n", "$-1\r\n:0\r\n"},
        {"SET n 1 nx ex 10\r\nINCR n\r\nTTL n\r\n", "+OK\r\n:2\r\n:10\r\n"},
        {"SET n 1 EX 9223372036854775807\r\n", "-ERR invalid expire time in 'set' command\r\n"},
        {"INCR k\r\nSET n 1 EX x\r\n", notANumber + notANumber},
        {"INCR new\r\nDECR new\r\nDECR new\r\n", ":1\r\n:0\r\n:-1\r\n"},
        {"SET m 9223372036854775807\r\nINCR m\r\n",
         "+OK\r\n-ERR increment or decrement would overflow\r\n"},
        {"EXPIRE k -1\r\nTTL k\r\nEXPIRE zz 1\r\n", ":1\r\n:-2\r\n:0\r\n"},
        {"KEYS [m-o]?*w\r\nKEYS [^n]??\r\n", "*1\r\n$3\r\nnew\r\n*0\r\n"},
        {"DEL n new m zz\r\nKEYS *\r\n", ":3\r\n*0\r\n"},
        {"CONFIG GET SAVE x\r\n", "*2\r\n$4\r\nsave\r\n$0\r\n\r\n"},
        {"*1\r\n$3\r\n\n\x9BZ\r\n", "-ERR unknown command '??Z'\r\n"},
        // A million bytes match all but the last of 4,000 wherever these begin.
        {ToRequest({"SET", std::string(1000000, 'a'), "1"}) + "SET ab 1\r\n", "+OK\r\n+OK\r\n"},
        {ToRequest({"KEYS", "*" + std::string(4000, 'a') + "b*"}), tooLong},
        {ToRequest({"KEYS", "*[" + std::string(300000, 'x') + "]"}), tooLong},
        {"KEYS *[a-z]b*\r\n", "*1\r\n$2\r\nab\r\n"},
        {"KEYS *[b-z]\r\n", "*1\r\n$2\r\nab\r\n"},
    };
    for (const auto& [request, answer] : dialogue) {
        EXPECT_EQ(answer, Answer(request)) << request.substr(0, 100);
    }
}

// Every allocation of a dialogue fails once: the command is refused and has changed nothing, or it
// has done all.
TEST_F(KvCommands, AreRefusedAsAWholeWhenMemoryRunsOut) {
    const std::string big(5000, 'v');
    const std::string longKey(100, 'k');
    const std::string before = ToRequest({"SET", "old", big, "EX", "100"}) + "SET n 1\r\n";
    const std::string state = ToRequest({"GET", "old"}) + "TTL old\r\n" +
                              ToRequest({"TTL", longKey}) + "GET n\r\nTTL n\r\nDBSIZE\r\n";
    int refused = 0;
    for (const Words& command : std::vector<Words>{{"SET", "old", std::string(6000, 'w')},
                                                   {"SET", longKey, big, "PX", "5000"},
                                                   {"INCR", "n"},
                                                   {"EXPIRE", "n", "50"},
                                                   {"DEL", "n", std::string(300, 'd')},
                                                   {"KEYS", "*"},
                                                   {"INFO"}}) {
        bool isDone = false;
        for (long skip = 0; !isDone; ++skip) {
            Answer("FLUSHALL\r\n" + before);
            const std::string stateBefore = Answer(state);
            CNxMessageChain replies;
            CNxMessageChain input(ToRequest(command));
            failing_new::Fail(skip, 1);
            m_end = m_runner.Run(m_parser, input, 0, replies);
            isDone = failing_new::Stop() <= skip;
            const std::string reply = replies.ToString();
            ASSERT_TRUE(m_end == ERun::QUIT || !reply.empty());
            m_parser = RequestParser();
            if (reply.empty() || reply == "-ERR out of memory\r\n") {
                ++refused;
                ASSERT_EQ(stateBefore, Answer(state)) << command[0] << skip;
            }
        }
    }
    EXPECT_GT(refused, 4);
}

}  // namespace
