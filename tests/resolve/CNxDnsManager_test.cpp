#include <fcntl.h>
#include <gtest/gtest.h>
#include <nx/event/INxEventQueue.h>
#include <nx/foundation/CNxAutoPtr.h>
#include <nx/foundation/INxObserver.h>
#include <nx/resolve/CNxDnsManager.h>
#include <nx/thread/CNxThread.h>
#include <nx/thread/CNxThreadManager.h>
#include <sys/wait.h>
#include <tests/resolve/DnsServer.h>
#include <tests/support/FailingNew.h>
#include <tests/support/Must.h>

#include <condition_variable>
#include <filesystem>
#include <functional>
#include <memory>
#include <random>
#include <set>

namespace {

using Record = CNxAutoPtr<CNxDnsRecord>;

CNxThreadManager* Threads() {
    return CNxThreadManager::Instance();
}
CNxDnsManager* Dns() {
    return CNxDnsManager::Instance();
}

DnsAnswer Good(std::vector<std::string> addresses, std::uint32_t ttl = 60) {
    return {std::move(addresses), ttl};
}

// Returns when it is so; a test that waits in vain ends by its time limit.
void WaitUntil(const std::function<bool()>& isSo) {
    while (!isSo()) {
        std::this_thread::yield();
    }
}

class Told : public INxObserver {
public:
    void OnObserve(const char* topic, void* data) override {
        EXPECT_STREQ(topic, "DnsManager");
        m_thread = CNxThreadManager::GetThreadSelfId();
        m_record = static_cast<CNxDnsRecord*>(data);
        ++m_calls;
    }

    Record m_record;
    unsigned long m_thread = 0;
    std::atomic<int> m_calls{0};
};

CNxThread* MakeThread() {
    CNxThread* thread = nullptr;
    Must(Threads()->CreateUserTaskThread(thread, CNxThreadManager::FLAG_JOINABLE, 0));
    return thread;
}

void EndThread(CNxThread* thread) {
    thread->Stop(nullptr);
    thread->Join();
    thread->Destory(0);
}

// A process with one server, and a thread that is told.
class CNxDnsManagerTest : public ::testing::Test {
protected:
    CNxDnsManagerTest() {
        [[maybe_unused]] static const bool s_once = [] {
            Must(Threads()->InitMainThread(0, nullptr));
            return true;
        }();
        Must(Dns()->SetServers(m_server.GetText()));
        Must(Dns()->SetTimeout(CNxTimeValue(20), 2));
        m_worker = MakeThread();
    }
    ~CNxDnsManagerTest() override { EndThread(m_worker); }

    // Null when the result is neither NX_OK nor NX_ERROR_WOULD_BLOCK.
    Record Resolve(const char* host, bool allowExpired = false) const {
        Told told;
        CNxDnsRecord* found = nullptr;
        m_asked = Dns()->AsyncResolve(found, host, &told, allowExpired ? 1 : 0, m_worker);
        if (m_asked != NX_ERROR_WOULD_BLOCK) {
            EXPECT_EQ(found != nullptr, m_asked == NX_OK);
            return Record::Adopt(found);
        }
        WaitUntil([&] { return told.m_calls != 0; });
        EXPECT_EQ(told.m_thread, m_worker->GetThreadHandle());
        return told.m_record;
    }

    NxResult Ask(const CNxString& host, INxObserver* observer = nullptr,
                 bool allowExpired = false) {
        CNxDnsRecord* found = nullptr;
        const NxResult result =
            Dns()->AsyncResolve(found, host, observer, allowExpired ? 1 : 0, m_worker);
        static_cast<void>(Record::Adopt(found));
        return result;
    }

    DnsServer m_server;
    CNxThread* m_worker = nullptr;
    mutable NxResult m_asked = NX_OK;
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
    DnsAnswer alias(both, 300);
    alias.alias = "real.test";
    alias.aliasTtl = 30;
    DnsAnswer cutOff(both);
    cutOff.isCutOff = true;
    const struct {
        const char* name;
        DnsAnswer answer;
        NxResult result;
        long seconds;
    } cases[] = {
        {"both.test", both, NX_OK, 60},
        {"alias.test", alias, NX_OK, 30},
        {"zero.test", {both, 0}, NX_OK, 1},
        {"long.test", {both, 2000000000}, NX_OK, 3600},
        {"cut-off.test", cutOff, NX_OK, 60},
        {"empty.test", std::vector<std::string>(), NX_ERROR_NOT_AVAILABLE, 5},
        {"nobody.test", DnsAnswer::NO_NAME, NX_ERROR_NOT_AVAILABLE, 5},
        {"broken.test", DnsAnswer::SERVER_FAILS, NX_ERROR_FAILURE, 5},
        {"garbage.test", DnsAnswer::GARBAGE, NX_ERROR_FAILURE, 5},
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
        CNxInetAddr first("1.2.3.4", 5);
        EXPECT_EQ(record->GetFirstIPAddr(first),
                  one.result == NX_OK ? NX_OK : NX_ERROR_NOT_AVAILABLE);
        EXPECT_EQ(first.GetPort(), one.result == NX_OK ? 0 : 5);
    }
    Must(Dns()->SetTimeout(CNxTimeValue(0, 1000), 2));
    m_server.Put("silent.test", DnsAnswer::SILENCE);
    EXPECT_EQ(Resolve("silent.test")->GetResult(), NX_ERROR_TIMEOUT);
}

TEST_F(CNxDnsManagerTest, WhatIsNoQuestionIsAnsweredAtOnce) {
    const CNxThread* const before = Threads()->GetThread(NX_THREAD_RESOLVER);
    for (const char* const text : {"10.0.0.1", "::1", "fe80::1%lo"}) {
        const Record record = Resolve(text);
        ASSERT_EQ(m_asked, NX_OK) << text;
        EXPECT_EQ(Texts(*record).size(), 1U);
        EXPECT_EQ(Dns()->RefreshHost(text), NX_OK);
    }
    const CNxString longest(std::string(63, 'a') + "." + std::string(63, 'b') + "." +
                            std::string(63, 'c') + "." + std::string(61, 'd'));
    const CNxString bad[] = {"",
                             ".",
                             "a..b",
                             ".a",
                             "a b",
                             "a:80",
                             "[::1]:80",
                             "fe80::1%no-such",
                             "a\n",
                             "\xc3\xa9",
                             longest + "e",
                             CNxString(64, 'a'),
                             CNxString("10.0.0.1\0.test", 14)};
    for (const CNxString& name : bad) {
        EXPECT_EQ(Ask(name), NX_ERROR_NOT_AVAILABLE) << name;
        EXPECT_EQ(Dns()->RefreshHost(name), NX_ERROR_NOT_AVAILABLE) << name;
    }
    EXPECT_EQ(Threads()->GetThread(NX_THREAD_RESOLVER), before) << "started for nothing";
    EXPECT_EQ(m_server.CountQueries(), 0);

    m_server.Put(longest.c_str(), Good({"10.0.0.1"}));
    EXPECT_EQ(Resolve(longest.c_str())->GetResult(), NX_OK);
    EXPECT_EQ(Resolve("localhost")->GetResult(), NX_OK);
    EXPECT_EQ(m_server.CountQueries("localhost"), 0);
}

TEST_F(CNxDnsManagerTest, AskersOfOneNameShareOneQuery) {
    constexpr size_t c_askers = 2000;
    m_server.Put("shared.test", Good({"10.0.0.1"}));
    m_server.Pause(true);
    std::vector<std::unique_ptr<Told>> told(c_askers);
    std::vector<std::thread> threads;
    for (size_t first = 0; first < 4; ++first) {
        threads.emplace_back([&, first] {
            for (size_t i = first; i < c_askers; i += 4) {
                told[i] = std::make_unique<Told>();
                EXPECT_EQ(Ask(i % 2 == 0 ? "shared.test" : "Shared.TEST", told[i].get()),
                          NX_ERROR_WOULD_BLOCK);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    m_server.Pause(false);
    for (const auto& one : told) {
        WaitUntil([&] { return one->m_calls != 0; });
    }
    EndThread(std::exchange(m_worker, MakeThread()));
    for (const auto& one : told) {
        EXPECT_EQ(one->m_calls, 1);
        EXPECT_EQ(one->m_record.Get(), told[0]->m_record.Get());
    }
    EXPECT_EQ(m_server.CountQueries("shared.test"), 1);
}

TEST_F(CNxDnsManagerTest, SilentNameDelaysNoOther) {
    constexpr size_t c_names = 1000;
    m_server.Put("silent.others.test", DnsAnswer::SILENCE);
    Told silent;
    EXPECT_EQ(Ask("silent.others.test", &silent), NX_ERROR_WOULD_BLOCK);
    // What is lost on the way is asked for again.
    Must(Dns()->SetTimeout(CNxTimeValue(0, 500000), 8));
    std::vector<Told> told(c_names);
    for (size_t i = 0; i < c_names; ++i) {
        m_server.Put("n" + std::to_string(i) + ".test", Good({"10.0.0.1"}));
    }
    const CNxTimeValue begin = CNxTimeValue::GetMonotonicTime();
    for (size_t i = 0; i < c_names; ++i) {
        const std::string name = "n" + std::to_string(i) + ".test";
        EXPECT_EQ(Ask(name.c_str(), &told[i]), NX_ERROR_WOULD_BLOCK);
    }
    for (Told& one : told) {
        WaitUntil([&] { return one.m_calls != 0; });
        EXPECT_EQ(one.m_record->GetResult(), NX_OK);
    }
    const CNxTimeValue took = CNxTimeValue::GetMonotonicTime() - begin;
    RecordProperty("milliseconds", static_cast<int>(took.GetTotalInMsec()));
    EXPECT_EQ(silent.m_calls, 0);
    EXPECT_EQ(Dns()->CancelResolve(&silent), NX_OK);
}

TEST_F(CNxDnsManagerTest, DeadServerIsPassedOver) {
    DnsServer deaf;
    deaf.Pause(true);
    for (const char* const name : {"first.test", "second.test", "third.test"}) {
        m_server.Put(name, Good({"10.0.0.1"}));
        deaf.Put(name, Good({"10.0.0.2"}));
    }
    Must(Dns()->SetServers(deaf.GetText() + "," + m_server.GetText()));
    Must(Dns()->SetTimeout(CNxTimeValue(0, 200000), 2));
    EXPECT_EQ(Texts(*Resolve("first.test")).front(), "10.0.0.1");
    deaf.Pause(false);
    EXPECT_EQ(Texts(*Resolve("second.test")).front(), "10.0.0.1") << "the first does not answer";

    // One that refuses, over a port that nobody has.
    CNxString refusing;
    {
        const DnsServer gone;
        refusing = gone.GetText();
    }
    Must(Dns()->SetServers(refusing + "," + m_server.GetText()));
    Must(Dns()->SetTimeout(CNxTimeValue(60), 10));
    EXPECT_EQ(Texts(*Resolve("third.test")).front(), "10.0.0.1");
}

TEST_F(CNxDnsManagerTest, ExpiredRecordIsServedWhileItIsRefreshed) {
    m_server.Put("old.test", Good({"10.0.0.1"}, 0));
    const Record old = Resolve("old.test");
    WaitUntil([&] { return CNxTimeValue::GetMonotonicTime() > old->GetExpireTime(); });
    m_server.Put("old.test", Good({"10.0.0.2"}));
    m_server.Pause(true);
    Told told;
    EXPECT_EQ(Resolve("old.test", true).Get(), old.Get());
    EXPECT_EQ(m_asked, NX_OK);
    EXPECT_EQ(Ask("old.test", &told), NX_ERROR_WOULD_BLOCK) << "joins the refresh";
    m_server.Pause(false);
    WaitUntil([&] { return told.m_calls != 0; });
    EXPECT_EQ(Texts(*told.m_record).front(), "10.0.0.2");
    EXPECT_EQ(m_server.CountQueries("old.test"), 2);

    // A refresh that fails leaves what is valid.
    m_server.Put("old.test", DnsAnswer::SERVER_FAILS);
    EXPECT_EQ(Dns()->RefreshHost("OLD.test"), NX_ERROR_WOULD_BLOCK);
    EXPECT_EQ(Resolve("old.test").Get(), told.m_record.Get());
    WaitUntil([&] { return m_server.CountQueries("old.test") == 4; });
    EXPECT_EQ(Resolve("old.test").Get(), told.m_record.Get());
}

TEST_F(CNxDnsManagerTest, LeastRecentlyUsedIsForgotten) {
    Dns()->SetCacheSize(2);
    for (const char* const name : {"a.lru.test", "b.lru.test", "c.lru.test"}) {
        m_server.Put(name, Good({"10.0.0.1"}));
    }
    Resolve("a.lru.test");
    Resolve("b.lru.test");
    EXPECT_EQ(Ask("a.lru.test"), NX_OK);
    Resolve("c.lru.test");
    EXPECT_EQ(Ask("a.lru.test"), NX_OK);
    EXPECT_EQ(Ask("c.lru.test"), NX_OK);
    EXPECT_EQ(Ask("b.lru.test"), NX_ERROR_WOULD_BLOCK);
    Dns()->SetCacheSize(4096);
}

TEST_F(CNxDnsManagerTest, AddressTakesTheResultOfItsLookup) {
    m_server.Put("host.test", Good({"2001:db8::7"}));
    m_server.Pause(true);
    CNxInetAddr address("10.1.2.3:8080");
    EXPECT_EQ(address.Set("host.test:443"), NX_ERROR_WOULD_BLOCK);
    EXPECT_FALSE(address.IsResolved());
    EXPECT_STREQ(address.GetIpDisplayName().c_str(), "host.test");
    EXPECT_STREQ(address.GetHostPort().c_str(), "host.test:443");
    EXPECT_EQ(address.GetType(), AF_INET);
    EXPECT_EQ(address.GetPtr()->sa_family, 0);
    EXPECT_EQ(address, CNxInetAddr("other.test", 443)) << "the host name does not count";
    // The object's own host name may be handed back to it.
    EXPECT_EQ(address.Set(address.GetHostName(), 444), NX_ERROR_WOULD_BLOCK);
    m_server.Pause(false);
    WaitUntil([&] { return address.TryResolve() != NX_ERROR_WOULD_BLOCK; });
    EXPECT_TRUE(address.IsResolved());
    EXPECT_STREQ(address.GetHostPort().c_str(), "[2001:db8::7]:444");
    EXPECT_EQ(address.Set("host.test:1"), NX_OK) << "from memory";
}

TEST_F(CNxDnsManagerTest, RefusesWhatItCannotServe) {
    for (const char* const servers : {"localhost", "10.0.0.1:", "10.0.0.1,,::1", "10.0.0.1,", ",",
                                      "[fe80::1%lo]:53", "::1:x"}) {
        EXPECT_EQ(Dns()->SetServers(servers), NX_ERROR_INVALID_ARG) << servers;
    }
    EXPECT_EQ(Dns()->SetServers("10.0.0.1,[::1]:5353,::1"), NX_OK);
    EXPECT_EQ(Dns()->SetTimeout(CNxTimeValue(0, 999), 1), NX_ERROR_INVALID_ARG);
    EXPECT_EQ(Dns()->SetTimeout(CNxTimeValue(61), 1), NX_ERROR_INVALID_ARG);
    EXPECT_EQ(Dns()->SetTimeout(CNxTimeValue(1), 0), NX_ERROR_INVALID_ARG);
    EXPECT_EQ(Dns()->SetTimeout(CNxTimeValue(1), 11), NX_ERROR_INVALID_ARG);

    Told told;
    EXPECT_EQ(Dns()->CancelResolve(&told), NX_ERROR_NOT_FOUND);
    std::thread([&] {
        CNxDnsRecord* found = nullptr;
        EXPECT_EQ(Dns()->AsyncResolve(found, "a.test", &told, 0, nullptr), NX_ERROR_NULL_POINTER)
            << "a thread that is not registered";
    }).join();
}

// Observers come, cancel and go on threads that end, while answers come.
TEST_F(CNxDnsManagerTest, CancelledObserverIsNotTold) {
    constexpr int c_rounds = 40;
    std::atomic<int> waits{0};
    const auto life = [&](unsigned seed) {
        std::mt19937 random(seed);
        for (int round = 0; round < c_rounds; ++round) {
            CNxThread* const thread = MakeThread();
            std::vector<std::unique_ptr<Told>> told;
            for (int i = 0; i < 20; ++i) {
                const std::string name = "x" + std::to_string(random() % 60) + ".test";
                told.push_back(std::make_unique<Told>());
                CNxDnsRecord* found = nullptr;
                const NxResult asked =
                    Dns()->AsyncResolve(found, name.c_str(), told.back().get(), 0, thread);
                static_cast<void>(Record::Adopt(found));
                waits += asked == NX_ERROR_WOULD_BLOCK ? 1 : 0;
                if (random() % 3 == 0) {
                    Dns()->RefreshHost(name.c_str());
                }
            }
            class Cancel : public INxEvent {
            public:
                explicit Cancel(Told& one) : m_one(one) {}
                NxResult OnEventFire() override {
                    Dns()->CancelResolve(&m_one);
                    m_calls = m_one.m_calls;
                    return NX_OK;
                }
                Told& m_one;
                int m_calls = 0;
            };
            for (auto& one : told) {
                thread->GetEventQueue()->PostEvent(new Cancel(*one),
                                                   INxEventQueue::PRIORITY_NORMAL);
            }
            if (random() % 2 == 0) {
                std::this_thread::yield();
            }
            thread->Stop(nullptr);
            thread->Join();
            for (auto& one : told) {
                Dns()->CancelResolve(one.get());
                EXPECT_LE(one->m_calls, 1);
            }
            thread->Destory(0);
        }
    };
    for (int i = 0; i < 60; ++i) {
        m_server.Put("x" + std::to_string(i) + ".test", Good({"10.0.0.1"}, 0));
    }
    Dns()->SetCacheSize(20);
    std::thread other(life, 1);
    life(2);
    other.join();
    Dns()->SetCacheSize(4096);
    EXPECT_GT(waits, 0);
}

TEST_F(CNxDnsManagerTest, ObserverIsToldOnceWhicheverAllocationFails) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer has an operator new of its own";
#endif
    // Where a socket cannot be watched its answers are not read.
    Must(Dns()->SetTimeout(CNxTimeValue(0, 20000), 8));
    // The first one starts the thread.
    const CNxString first("start.memory.test");
    NxResult started = NX_ERROR_FAILURE;
    for (int i = 0; started != NX_ERROR_WOULD_BLOCK; ++i) {
        ASSERT_EQ(started, NX_ERROR_FAILURE) << i;
        ASSERT_LT(i, 1000);
        const FailingNew fault(i, FailingNew::ONCE);
        started = Ask(first);
    }
    int refused = 0;
    for (int i = 0; i < 60; ++i) {
        const std::string name = std::to_string(i) + ".a-long-name.memory.test";
        m_server.Put(name, Good({"10.0.0.1", "2001:db8::1"}));
        const CNxString host(name.c_str());
        Told told;
        NxResult asked = NX_OK;
        m_server.Pause(true);
        {
            const FailingNew fault(i / 2, FailingNew::ONCE);
            asked = Ask(host, &told);
            if (i % 2 == 1) {
                // In the thread that looks it up and tells as well.
                m_server.Pause(false);
                WaitUntil([&] { return asked != NX_ERROR_WOULD_BLOCK || told.m_calls != 0; });
            }
        }
        m_server.Pause(false);
        if (asked == NX_ERROR_WOULD_BLOCK) {
            WaitUntil([&] { return told.m_calls != 0; });
        } else {
            EXPECT_EQ(asked, NX_ERROR_FAILURE);
            EXPECT_EQ(told.m_calls, 0);
            ++refused;
        }
        EXPECT_LE(told.m_calls, 1);
        Dns()->CancelResolve(&told);
    }
    EXPECT_GT(refused, 0);
    EXPECT_LT(refused, 60);
}

TEST_F(CNxDnsManagerTest, ForkedChildLooksUpByItself) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer lets a forked child start no thread";
#endif
    m_server.Put("fork.test", Good({"10.0.0.1"}));
    m_server.Put("known.fork.test", Good({"10.0.0.1"}));
    Resolve("known.fork.test");
    m_server.Pause(true);
    Told parent;
    EXPECT_EQ(Ask("fork.test", &parent), NX_ERROR_WOULD_BLOCK);
    const pid_t child = fork();
    if (child == 0) {
        CNxInetAddr address;
        const bool isRemembered = address.Set("known.fork.test", 1) == NX_OK;
        NxResult result = address.Set("fork.test", 1);
        WaitUntil([&] { return (result = address.TryResolve()) != NX_ERROR_WOULD_BLOCK; });
        _exit(isRemembered && result == NX_OK && parent.m_calls == 0 ? 0 : 1);
    }
    m_server.Pause(false);
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    WaitUntil([&] { return parent.m_calls != 0; });
    EXPECT_EQ(parent.m_record->GetResult(), NX_OK);
}

TEST_F(CNxDnsManagerTest, ItsDescriptorsAreCloseOnExecAndGoWithTheLookup) {
    const auto list = [] {
        std::set<std::string> fds;
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            fds.insert(entry.path().filename());
        }
        return fds;
    };
    m_server.Put("open.test", Good({"10.0.0.1"}));
    Resolve("open.test");
    const auto before = list();
    m_server.Put("held.test", Good({"10.0.0.1"}));
    m_server.Pause(true);
    Told told;
    EXPECT_EQ(Ask("held.test", &told), NX_ERROR_WOULD_BLOCK);
    WaitUntil([&] { return list().size() > before.size(); });
    for (const std::string& fd : list()) {
        if (before.count(fd) == 0) {
            const int flags = fcntl(std::stoi(fd), F_GETFD);
            EXPECT_TRUE(flags == -1 || (flags & FD_CLOEXEC) != 0) << fd;
        }
    }
    m_server.Pause(false);
    WaitUntil([&] { return told.m_calls != 0; });
    WaitUntil([&] { return list() == before; });
}

// It ends the resolver of the process, so the process is one of its own.
TEST_F(CNxDnsManagerTest, StoppedResolverTellsThoseWhoWait) {
    ::testing::GTEST_FLAG(death_test_style) = "threadsafe";
    const auto body = [this] {
        m_server.Put("known.test", Good({"10.0.0.1"}));
        m_server.Put("silent.test", DnsAnswer::SILENCE);
        Resolve("known.test");
        Told told;
        Must(Ask("silent.test", &told) == NX_ERROR_WOULD_BLOCK ? NX_OK : NX_ERROR_FAILURE);
        WaitUntil([&] { return m_server.CountQueries("silent.test") != 0; });
        Threads()->GetThread(NX_THREAD_RESOLVER)->Stop(nullptr);
        WaitUntil([&] { return told.m_calls != 0; });
        const bool isRight = told.m_record->GetResult() == NX_ERROR_FAILURE &&
                             Ask("known.test") == NX_OK && Ask("10.0.0.1") == NX_OK &&
                             Ask("other.test", &told) == NX_ERROR_NOT_INITIALIZED;
        std::exit(isRight ? 0 : 1);
    };
    EXPECT_EXIT(body(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
