#include <fcntl.h>
#include <gtest/gtest.h>
#include <nx/event/NxCall.h>
#include <nx/foundation/CNxAutoPtr.h>
#include <nx/foundation/INxObserver.h>
#include <nx/resolve/CNxDnsManager.h>
#include <tests/process/Children.h>
#include <tests/resolve/DnsServer.h>
#include <tests/thread/ThreadSupport.h>

#include <random>

namespace {

using Record = CNxAutoPtr<CNxDnsRecord>;

CNxDnsManager* Dns() {
    return CNxDnsManager::Instance();
}

class Told : public INxObserver {
public:
    void OnObserve(const char* topic, void* data) override {
        EXPECT_STREQ(topic, "DnsManager");
        EXPECT_FALSE(m_isCancelled);
        m_thread = CNxThreadManager::GetThreadSelfId();
        m_record = static_cast<CNxDnsRecord*>(data);
        ++m_calls;
    }

    const Record& Wait() const {
        YieldUntil([this] { return m_calls != 0; });
        return m_record;
    }

    Record m_record;
    unsigned long m_thread = 0;
    std::atomic<int> m_calls{0};
    bool m_isCancelled = false;
};

// A process with one server, and a thread that is told.
class CNxDnsManagerTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { Must(Manager()->InitMainThread(0, nullptr)); }

    CNxDnsManagerTest() {
        Must(Dns()->SetServers(m_server.GetText()));
        Must(Dns()->SetTimeout(CNxTimeValue(20), 2));
        m_worker = StartWorker(0);
    }
    ~CNxDnsManagerTest() override { StopAndDestroy(m_worker); }

    NxResult Ask(const CNxString& host, INxObserver* observer = nullptr,
                 CNxThread* thread = nullptr) const {
        CNxDnsRecord* found = nullptr;
        CNxThread* const told = thread != nullptr ? thread : m_worker;
        const NxResult result = Dns()->AsyncResolve(found, host, observer, 0, told);
        const Record held = Record::Adopt(found);
        EXPECT_EQ(found != nullptr, result == NX_OK);
        return result;
    }

    // Null when the result is neither NX_OK nor NX_ERROR_WOULD_BLOCK.
    Record Resolve(const char* host, int allowExpired = 0) {
        Told told;
        CNxDnsRecord* found = nullptr;
        m_asked = Dns()->AsyncResolve(found, host, &told, allowExpired, m_worker);
        if (m_asked != NX_ERROR_WOULD_BLOCK) {
            return Record::Adopt(found);
        }
        told.Wait();
        EXPECT_EQ(told.m_thread, m_worker->GetThreadHandle());
        return told.m_record;
    }

    DnsServer m_server;
    CNxThread* m_worker = nullptr;
    NxResult m_asked = NX_OK;
};

std::vector<std::string> Texts(const CNxDnsRecord& record) {
    std::vector<std::string> texts;
    for (const CNxInetAddr& address : record.GetAddresses()) {
        texts.push_back(address.GetIpDisplayName().GetRawData());
    }
    std::sort(texts.begin(), texts.end());
    return texts;
}

long Seconds(const CNxDnsRecord& record) {
    return (record.GetExpireTime() - record.GetResolveTime()).GetSec();
}

TEST_F(CNxDnsManagerTest, RecordHoldsWhatTheServerAnswers) {
    const std::vector<std::string> both = {"10.1.0.1", "10.1.0.2", "2001:db8::1"};
    const struct {
        const char* name;
        DnsAnswer answer;
        NxResult result;
        long seconds;
    } cases[] = {
        {"both.test", {both}, NX_OK, 60},
        {"alias.test", {both, 300, DnsAnswer::ALIAS}, NX_OK, 30},
        {"zero.test", {both, 0}, NX_OK, 1},
        {"long.test", {both, 2000000000}, NX_OK, 3600},
        {"cut-off.test", {both, 60, DnsAnswer::CUT_OFF}, NX_OK, 60},
        {"empty.test", {}, NX_ERROR_NOT_AVAILABLE, 5},
        {"nobody.test", {{}, 0, DnsAnswer::NO_NAME}, NX_ERROR_NOT_AVAILABLE, 5},
        {"broken.test", {{}, 0, DnsAnswer::SERVER_FAILS}, NX_ERROR_FAILURE, 5},
    };
    for (const auto& one : cases) {
        m_server.Put(one.name, one.answer);
        const Record record = Resolve(one.name);
        ASSERT_EQ(m_asked, NX_ERROR_WOULD_BLOCK) << one.name;
        ASSERT_TRUE(record) << one.name;
        EXPECT_STREQ(record->GetHostName().c_str(), one.name);
        EXPECT_EQ(record->GetResult(), one.result) << one.name;
        EXPECT_EQ(Texts(*record), one.result == NX_OK ? both : std::vector<std::string>())
            << one.name;
        EXPECT_EQ(Seconds(*record), one.seconds) << one.name;
        EXPECT_EQ(Ask(one.name), one.result) << "from memory: " << one.name;
    }
    Must(Dns()->SetTimeout(CNxTimeValue(0, 1000), 2));
    m_server.Put("silent.test", {{}, 0, DnsAnswer::SILENCE});
    EXPECT_EQ(Resolve("silent.test")->GetResult(), NX_ERROR_TIMEOUT);
}

TEST_F(CNxDnsManagerTest, WhatIsNoQuestionIsAnsweredAtOnce) {
    const CNxThread* const before = Manager()->GetThread(NX_THREAD_RESOLVER);
    for (const char* const text : {"10.0.0.1", "::1", "fe80::1%lo"}) {
        EXPECT_EQ(Texts(*Resolve(text)).size(), 1U) << text;
        EXPECT_EQ(Dns()->RefreshHost(text), NX_OK);
    }
    const std::string label(63, 'a');
    const std::string longest = label + "." + label + "." + label + "." + label.substr(2);
    for (const CNxString& text :
         {CNxString(), CNxString("."), CNxString("a..b"), CNxString("[::1]:80"),
          CNxString("fe80::1%no-such"), CNxString("\xc3\xa9"), CNxString(longest + "e"),
          CNxString(label + "a"), CNxString("10.0.0.1\0.test", 14)}) {
        EXPECT_EQ(Ask(text), NX_ERROR_NOT_AVAILABLE) << text;
        EXPECT_EQ(Dns()->RefreshHost(text), NX_ERROR_NOT_AVAILABLE) << text;
    }
    EXPECT_EQ(Manager()->GetThread(NX_THREAD_RESOLVER), before) << "started for nothing";
    EXPECT_EQ(Resolve("localhost")->GetResult(), NX_OK);
    EXPECT_EQ(m_server.CountQueries("localhost"), 0);
    m_server.Put(longest, {{"10.0.0.1"}});
    EXPECT_EQ(Resolve(longest.c_str())->GetResult(), NX_OK);
}

TEST_F(CNxDnsManagerTest, AskersOfOneNameShareOneQueryWhoseDescriptorsAreCloseOnExecAndGo) {
    const auto list = [] {
        std::vector<int> flags(1024);
        for (int fd = 0; fd < 1024; ++fd) {
            flags[static_cast<size_t>(fd)] = fcntl(fd, F_GETFD);
        }
        return flags;
    };
    Resolve("open.test");
    // Its sockets are closed when the resolver has come back from telling.
    Must(NxSendCall(*Manager()->GetThreadEventQueue(NX_THREAD_RESOLVER), [] {}));
    const auto before = list();
    std::vector<Told> shared(2000);
    m_server.Pause(true);
    for (size_t i = 0; i < shared.size(); ++i) {
        EXPECT_EQ(Ask(i % 2 == 0 ? "shared.test" : "Shared.TEST", &shared[i]),
                  NX_ERROR_WOULD_BLOCK);
    }
    YieldUntil([&] { return list() != before; });
    const auto now = list();
    for (size_t fd = 0; fd < now.size(); ++fd) {
        EXPECT_TRUE(now[fd] == before[fd] || now[fd] == FD_CLOEXEC) << fd;
    }
    m_server.Pause(false);
    for (const Told& one : shared) {
        EXPECT_EQ(one.Wait().Get(), shared[0].Wait().Get());
    }
    YieldUntil([&] { return list() == before; });
    StopAndDestroy(std::exchange(m_worker, StartWorker(0)));
    for (const Told& one : shared) {
        EXPECT_EQ(one.m_calls, 1);
    }
    EXPECT_EQ(m_server.CountQueries("shared.test"), 1);
}

TEST_F(CNxDnsManagerTest, DeadServerIsPassedOver) {
    DnsServer deaf;
    deaf.Pause(true);
    deaf.Put("second.test", {{}, 0, DnsAnswer::NO_NAME});
    Must(Dns()->SetServers(deaf.GetText() + "," + m_server.GetText()));
    Must(Dns()->SetTimeout(CNxTimeValue(0, 200000), 2));
    EXPECT_EQ(Resolve("first.test")->GetResult(), NX_OK);
    deaf.Pause(false);
    EXPECT_EQ(Resolve("second.test")->GetResult(), NX_OK) << "the first does not answer";

    // One that refuses, over a port that nobody has.
    const CNxString refusing = DnsServer().GetText();
    Must(Dns()->SetServers(refusing + "," + m_server.GetText()));
    Must(Dns()->SetTimeout(CNxTimeValue(60), 10));
    EXPECT_EQ(Resolve("third.test")->GetResult(), NX_OK);
}

TEST_F(CNxDnsManagerTest, ExpiredRecordIsServedWhileItIsRefreshed) {
    m_server.Put("old.test", {{"10.0.0.1"}, 0});
    const Record old = Resolve("old.test");
    YieldUntil([&] { return CNxTimeValue::GetMonotonicTime() > old->GetExpireTime(); });
    m_server.Put("old.test", {{"10.0.0.2"}});
    m_server.Pause(true);
    Told told;
    EXPECT_EQ(Resolve("old.test", 1).Get(), old.Get());
    EXPECT_EQ(m_asked, NX_OK);
    EXPECT_EQ(Ask("old.test", &told), NX_ERROR_WOULD_BLOCK) << "joins the refresh";
    m_server.Pause(false);
    EXPECT_EQ(Texts(*told.Wait()).front(), "10.0.0.2");
    EXPECT_EQ(m_server.CountQueries("old.test"), 2);

    // A refresh that fails leaves what is valid.
    m_server.Put("old.test", {{}, 0, DnsAnswer::SERVER_FAILS});
    EXPECT_EQ(Dns()->RefreshHost("OLD.test"), NX_ERROR_WOULD_BLOCK);
    EXPECT_EQ(Resolve("old.test").Get(), told.m_record.Get());
    YieldUntil([&] { return m_server.CountQueries("old.test") == 4; });
    EXPECT_EQ(Resolve("old.test").Get(), told.m_record.Get());
}

TEST_F(CNxDnsManagerTest, LeastRecentlyUsedIsForgotten) {
    Dns()->SetCacheSize(2);
    Resolve("a.lru.test");
    Resolve("b.lru.test");
    EXPECT_EQ(Ask("a.lru.test"), NX_OK);
    Resolve("c.lru.test");
    EXPECT_EQ(Ask("a.lru.test"), NX_OK);
    EXPECT_EQ(Ask("c.lru.test"), NX_OK);
    EXPECT_EQ(Ask("b.lru.test"), NX_ERROR_WOULD_BLOCK);
    Dns()->SetCacheSize(4096);
}

// Observers come, cancel and go on threads that end, while answers come.
TEST_F(CNxDnsManagerTest, CancelledObserverIsNotTold) {
    std::atomic<int> waits{0};
    const auto live = [&](unsigned seed) {
        std::mt19937 random(seed);
        for (int round = 0; round < 40; ++round) {
            CNxThread* const thread = StartWorker(0);
            std::vector<Told> told(20);
            for (Told& one : told) {
                const CNxString name(("x" + std::to_string(random() % 60) + ".test").c_str());
                waits += Ask(name, &one, thread) == NX_ERROR_WOULD_BLOCK;
                static_cast<void>(random() % 3 == 0 ? Dns()->RefreshHost(name) : NX_OK);
                Must(NxPostCall(*thread->GetEventQueue(), [&one] {
                    Dns()->CancelResolve(&one);
                    one.m_isCancelled = true;
                }));
            }
            StopAndDestroy(thread);
            for (Told& one : told) {
                Dns()->CancelResolve(&one);
                EXPECT_LE(one.m_calls, 1);
            }
        }
    };
    for (int i = 0; i < 60; ++i) {
        m_server.Put("x" + std::to_string(i) + ".test", {{"10.0.0.1"}, 0});
    }
    Dns()->SetCacheSize(20);
    std::thread other(live, 1);
    live(2);
    other.join();
    Dns()->SetCacheSize(4096);
    EXPECT_GT(waits, 0);
}

TEST_F(CNxDnsManagerTest, ForkedChildLooksUpByItself) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer lets a forked child start no thread";
#endif
    Resolve("known.fork.test");
    m_server.Put("fork.test", {{"2001:db8::7"}});
    m_server.Pause(true);
    Told parent;
    EXPECT_EQ(Ask("fork.test", &parent), NX_ERROR_WOULD_BLOCK);
    Child child([&] {
        CNxInetAddr address;
        const bool isRemembered = address.Set("known.fork.test", 1) == NX_OK;
        const bool isAsked = address.Set("fork.test:443") == NX_ERROR_WOULD_BLOCK &&
                             !address.IsResolved() && address.GetHostPort() == "fork.test:443" &&
                             // The object's own host name may be handed back to it.
                             address.Set(address.GetHostName(), 444) == NX_ERROR_WOULD_BLOCK;
        YieldUntil([&] { return address.TryResolve() != NX_ERROR_WOULD_BLOCK; });
        const bool isAnswered = address.GetHostPort() == "[2001:db8::7]:444";
        return isRemembered && isAsked && isAnswered && parent.m_calls == 0 ? 0 : 1;
    });
    m_server.Pause(false);
    EXPECT_EQ(child.Wait(), 0);
    EXPECT_EQ(parent.Wait()->GetResult(), NX_OK);
}

// It ends the resolver of the process, so the process is one of its own.
TEST_F(CNxDnsManagerTest, StoppedResolverTellsThoseWhoWait) {
    ::testing::GTEST_FLAG(death_test_style) = "threadsafe";
    const auto body = [this] {
        m_server.Put("silent.test", {{}, 0, DnsAnswer::SILENCE});
        Resolve("known.test");
        Told told;
        Must(Ask("silent.test", &told) == NX_ERROR_WOULD_BLOCK ? NX_OK : NX_ERROR_FAILURE);
        YieldUntil([&] { return m_server.CountQueries("silent.test") != 0; });
        Manager()->GetThread(NX_THREAD_RESOLVER)->Stop(nullptr);
        const bool isRight = told.Wait()->GetResult() == NX_ERROR_FAILURE &&
                             Ask("known.test") == NX_OK && Ask("10.0.0.1") == NX_OK &&
                             Ask("other.test", &told) == NX_ERROR_NOT_INITIALIZED;
        std::exit(isRight ? 0 : 1);
    };
    EXPECT_EXIT(body(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
