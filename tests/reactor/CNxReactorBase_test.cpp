// Registration, removal and dispatch, without a demultiplexer: the hooks only keep a record.
#include <gtest/gtest.h>
#include <nx/reactor/CNxPipe.h>
#include <nx/reactor/CNxReactorBase.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <functional>
#include <map>
#include <random>
#include <set>
#include <vector>

#include "../support/CountedEvent.h"

namespace {

class RecordingReactor : public CNxReactorBase {
public:
    ~RecordingReactor() override = default;
    int GetReactorType() override { return 0; }
    NxResult NotifyHandler(INxEventHandler* /*handler*/, long mask) override {
        m_notified.push_back(mask);
        return NX_OK;
    }
    NxResult RunEventLoop() override { return NX_OK; }
    NxResult StopEventLoop() override { return NX_OK; }
    void OnHandleRemoved(int fd) override { m_watched.erase(fd); }
    NxResult OnHandleRegister(int fd, long mask, INxEventHandler* /*handler*/) override {
        ++m_registerCalls;
        if (m_registerAnswer == NX_OK) {
            m_watched[fd] = mask;
        }
        return m_registerAnswer;
    }

    NxResult m_registerAnswer = NX_OK;
    int m_registerCalls = 0;
    std::map<int, long> m_watched;
    std::vector<long> m_notified;
};

class Handler : public INxEventHandler {
public:
    explicit Handler(int fd) : m_fd(fd) {}
    int GetHandle() const override { return m_fd; }
    int OnInput(int fd) override {
        EXPECT_EQ(fd, m_fd);
        ++m_inputs;
        return m_onInput ? m_onInput() : 0;
    }
    int OnOutput(int fd) override {
        EXPECT_EQ(fd, m_fd);
        ++m_outputs;
        return m_outputAnswer;
    }
    int OnClose(int fd, long mask) override {
        EXPECT_EQ(fd, m_fd);
        m_closedWith.push_back(mask);
        return 0;
    }

    int m_fd;
    int m_inputs = 0;
    int m_outputs = 0;
    int m_outputAnswer = 0;
    std::function<int()> m_onInput;
    std::vector<long> m_closedWith;
};

constexpr long c_readWrite = NX_MASK_READ | NX_MASK_WRITE;

class ReactorBase : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(m_reactor.Open(), NX_OK); }
    void TearDown() override { m_reactor.Close(); }

    NxResult Dispatch(int fd, long mask, int dropConnect = 0) {
        return m_reactor.ProcessHandleEvent(fd, mask, 0, 0, dropConnect);
    }

    RecordingReactor m_reactor;
    Handler m_handler{5};
};

TEST_F(ReactorBase, RegistrationIsReplacedNotMerged) {
    Handler other(5);
    EXPECT_EQ(m_reactor.RegisterHandler(nullptr, NX_MASK_READ), NX_ERROR_INVALID_ARG);
    EXPECT_EQ(m_reactor.RegisterHandler(&m_handler, NX_MASK_SHOULD_CALL), NX_ERROR_INVALID_ARG);
    EXPECT_EQ(m_reactor.RegisterHandler(&m_handler, NX_MASK_EVENT_QUEUE), NX_ERROR_INVALID_ARG);
    EXPECT_EQ(m_reactor.RegisterHandler(&m_handler, NX_MASK_READ | NX_MASK_CLOSE), NX_OK);
    EXPECT_EQ(m_reactor.RegisterHandler(&m_handler, NX_MASK_READ), NX_OK);
    EXPECT_EQ(m_reactor.m_registerCalls, 1);
    EXPECT_EQ(m_reactor.RegisterHandler(&m_handler, NX_MASK_WRITE), NX_ERROR_FOUND);
    EXPECT_EQ(m_reactor.m_watched[5], NX_MASK_WRITE);
    // What the demultiplexer says to a replacement is not asked.
    m_reactor.m_registerAnswer = NX_ERROR_FAILURE;
    EXPECT_EQ(m_reactor.RegisterHandler(&other, c_readWrite), NX_ERROR_FOUND);
    Dispatch(5, c_readWrite);
    EXPECT_EQ(m_handler.m_inputs + m_handler.m_outputs, 0);
    EXPECT_EQ(other.m_inputs, 1);
    EXPECT_EQ(other.m_outputs, 1);
}

TEST_F(ReactorBase, DescriptorsWithoutAPlaceChangeNothing) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const int size = static_cast<int>(limit.rlim_cur);
    ASSERT_GE(size, 1);
    for (const int fd : {-1, -2, size, size + 1}) {
        Handler stray(fd);
        m_reactor.m_registerAnswer = NX_OK;
        EXPECT_EQ(m_reactor.RegisterHandler(&stray, NX_MASK_READ), NX_ERROR_INVALID_ARG) << fd;
        m_reactor.m_registerAnswer = NX_ERROR_FAILURE;
        EXPECT_EQ(m_reactor.RegisterHandler(&stray, NX_MASK_READ), NX_ERROR_FAILURE) << fd;
        EXPECT_EQ(m_reactor.RemoveHandler(&stray, NX_MASK_READ), NX_OK) << fd;
        if (fd != -1) {
            EXPECT_EQ(Dispatch(fd, NX_MASK_READ), NX_ERROR_INVALID_ARG) << fd;
        }
        EXPECT_EQ(m_reactor.m_watched.count(size), 0u);
    }
    EXPECT_EQ(m_reactor.RegisterHandler(&m_handler, NX_MASK_READ), NX_ERROR_FAILURE);
    EXPECT_EQ(Dispatch(5, NX_MASK_READ), NX_ERROR_NOT_FOUND);
    EXPECT_EQ(Dispatch(-1, NX_MASK_EVENT_QUEUE), NX_ERROR_NOT_FOUND);
}

TEST_F(ReactorBase, RefusingHandlerIsDroppedAndClosedOnce) {
    m_reactor.RegisterHandler(&m_handler, c_readWrite);
    m_handler.m_onInput = [] { return -1; };
    EXPECT_EQ(Dispatch(5, c_readWrite), NX_OK);
    EXPECT_EQ(m_handler.m_outputs, 0);
    EXPECT_EQ(m_handler.m_closedWith, std::vector<long>{c_readWrite});
    EXPECT_TRUE(m_reactor.m_watched.empty());

    m_handler.m_outputAnswer = 1;
    m_reactor.RegisterHandler(&m_handler, NX_MASK_WRITE);
    EXPECT_EQ(Dispatch(5, NX_MASK_OUTPUT), NX_OK);
    m_reactor.RegisterHandler(&m_handler, NX_MASK_CONNECT);
    EXPECT_EQ(Dispatch(5, NX_MASK_CONNECT, 1), NX_OK);
    m_reactor.RegisterHandler(&m_handler, NX_MASK_READ);
    EXPECT_EQ(Dispatch(5, NX_MASK_CLOSE), NX_OK);
    EXPECT_EQ(m_handler.m_closedWith,
              (std::vector<long>{c_readWrite, NX_MASK_WRITE, NX_MASK_CONNECT, NX_MASK_READ}));
    EXPECT_EQ(m_handler.m_outputs, 1);
    EXPECT_EQ(Dispatch(5, NX_MASK_READ), NX_ERROR_NOT_FOUND);
}

TEST_F(ReactorBase, CallbackThatChangesTheTableEndsItsOwnDispatch) {
    Handler other(5);
    for (const int answer : {0, -1}) {
        m_reactor.RegisterHandler(&m_handler, c_readWrite);
        m_handler.m_onInput = [&] {
            m_reactor.RemoveHandler(&m_handler, NX_MASK_ALL_EVENTS);
            return answer;
        };
        EXPECT_EQ(Dispatch(5, c_readWrite), NX_OK);
        m_reactor.RegisterHandler(&m_handler, c_readWrite);
        m_handler.m_onInput = [&] {
            m_reactor.RegisterHandler(&other, c_readWrite);
            return answer;
        };
        EXPECT_EQ(Dispatch(5, c_readWrite), NX_OK);
        m_reactor.RemoveHandler(&other, NX_MASK_ALL_EVENTS);
    }
    // It keeps its place but gives up writing.
    m_reactor.RegisterHandler(&m_handler, c_readWrite);
    m_handler.m_onInput = [&] {
        EXPECT_EQ(m_reactor.RemoveHandler(&m_handler, NX_MASK_WRITE), NX_ERROR_FOUND);
        return 0;
    };
    EXPECT_EQ(Dispatch(5, c_readWrite), NX_OK);
    EXPECT_EQ(m_handler.m_outputs + other.m_outputs, 0);
    EXPECT_TRUE(m_handler.m_closedWith.empty());
    EXPECT_TRUE(other.m_closedWith.empty());
}

TEST_F(ReactorBase, PostedEventsRunInBatchesAndWakeOnTheFirst) {
    EventCounts counts;
    for (int i = 0; i < 100001; ++i) {
        m_reactor.PostEvent(new CountedEvent(counts), INxEventQueue::PRIORITY_NORMAL);
    }
    EXPECT_EQ(m_reactor.m_notified.size(), 1u);
    EXPECT_EQ(Dispatch(-1, NX_MASK_EVENT_QUEUE), NX_OK);
    EXPECT_EQ(counts.m_fired, 100000);
    EXPECT_EQ(m_reactor.m_notified, (std::vector<long>{NX_MASK_EVENT_QUEUE, NX_MASK_EVENT_QUEUE}));
    EXPECT_EQ(Dispatch(-1, NX_MASK_EVENT_QUEUE), NX_OK);
    EXPECT_TRUE(counts.AllDestroyed());
}

TEST_F(ReactorBase, ClosedReactorRefusesEventsAndTimersUntilItIsOpenedAgain) {
    class Timer : public INxTimerHandler {
        void OnTimeout(const CNxTimeValue& /*curTime*/, void* /*token*/) override {}
    } timer;
    EventCounts counts;
    const auto post = [&] {
        return m_reactor.PostEvent(new CountedEvent(counts), INxEventQueue::PRIORITY_NORMAL);
    };
    EXPECT_EQ(m_reactor.Open(), NX_ERROR_ALREADY_INITIALIZED);
    EXPECT_EQ(m_reactor.ScheduleTimer(&timer, nullptr, CNxTimeValue(1, 0), 1), NX_OK);
    EXPECT_EQ(post(), NX_OK);
    EXPECT_EQ(m_reactor.Close(), NX_OK);
    EXPECT_TRUE(counts.AllDestroyed());
    EXPECT_EQ(post(), NX_ERROR_NOT_INITIALIZED);
    EXPECT_EQ(m_reactor.SendEvent(new CountedEvent(counts)), NX_ERROR_NOT_INITIALIZED);
    EXPECT_EQ(m_reactor.ScheduleTimer(&timer, nullptr, CNxTimeValue(1, 0), 1),
              NX_ERROR_NOT_INITIALIZED);
    EXPECT_EQ(m_reactor.CancelTimer(&timer), NX_ERROR_NOT_INITIALIZED);
    EXPECT_EQ(m_reactor.ProcessTimerTick(), NX_ERROR_NOT_INITIALIZED);
    EXPECT_EQ(Dispatch(5, NX_MASK_READ), NX_ERROR_NOT_INITIALIZED);
    EXPECT_EQ(m_reactor.Open(), NX_OK);
    EXPECT_EQ(post(), NX_OK);
    EXPECT_EQ(m_reactor.SendEvent(new CountedEvent(counts, [] { return NX_ERROR_FOUND; })),
              NX_ERROR_FOUND);
    EXPECT_EQ(m_reactor.ProcessTimerTick(), NX_OK);
    EXPECT_EQ(Dispatch(-1, NX_MASK_EVENT_QUEUE), NX_OK);
    EXPECT_TRUE(counts.AllDestroyed());
}

// The table written out as the rules say: what a descriptor is registered with, and what each
// operation answers.
struct Model {
    struct Entry {
        size_t m_handler;
        long m_mask;
    };

    NxResult Register(int fd, size_t handler, long mask) {
        mask &= NX_MASK_ALL_EVENTS;
        if (mask == 0) {
            return NX_ERROR_INVALID_ARG;
        }
        const auto found = m_table.find(fd);
        if (found == m_table.end()) {
            m_table[fd] = {handler, mask};
            return NX_OK;
        }
        const bool same = found->second.m_handler == handler && found->second.m_mask == mask;
        found->second = {handler, mask};
        return same ? NX_OK : NX_ERROR_FOUND;
    }

    NxResult Remove(int fd, long mask) {
        mask &= NX_MASK_ALL_EVENTS;
        if (mask == 0) {
            return NX_ERROR_INVALID_ARG;
        }
        const auto found = m_table.find(fd);
        if (found == m_table.end() || (found->second.m_mask & mask) == 0) {
            return NX_OK;
        }
        found->second.m_mask &= ~mask;
        if (found->second.m_mask != 0) {
            return NX_ERROR_FOUND;
        }
        m_table.erase(found);
        return NX_OK;
    }

    std::map<int, Entry> m_table;
};

TEST_F(ReactorBase, RandomOperationsAgreeWithALiteralTable) {
    std::vector<Handler> handlers;
    for (int i = 0; i < 12; ++i) {
        handlers.emplace_back(20 + i / 3);
    }
    Model model;
    std::mt19937 random(7);
    for (int step = 0; step < 20000; ++step) {
        const size_t which = random() % handlers.size();
        Handler& handler = handlers[which];
        const long mask = static_cast<long>(random() % 0x200);
        const auto entry = model.m_table.find(handler.m_fd);
        switch (random() % 3) {
            case 0:
                ASSERT_EQ(m_reactor.RegisterHandler(&handler, mask),
                          model.Register(handler.m_fd, which, mask));
                break;
            case 1:
                ASSERT_EQ(m_reactor.RemoveHandler(&handler, mask),
                          model.Remove(handler.m_fd, mask));
                break;
            default: {
                if (entry == model.m_table.end()) {
                    ASSERT_EQ(Dispatch(handler.m_fd, mask), NX_ERROR_NOT_FOUND);
                    break;
                }
                Handler& called = handlers[entry->second.m_handler];
                const bool closed = (mask & NX_MASK_CLOSE) != 0;
                const long active = closed ? 0 : mask & entry->second.m_mask;
                const int inputs = called.m_inputs + ((active & NX_MASK_INPUT) != 0 ? 1 : 0);
                const int outputs = called.m_outputs + ((active & NX_MASK_OUTPUT) != 0 ? 1 : 0);
                ASSERT_EQ(Dispatch(handler.m_fd, mask), NX_OK);
                ASSERT_EQ(called.m_inputs, inputs);
                ASSERT_EQ(called.m_outputs, outputs);
                if (closed) {
                    ASSERT_EQ(called.m_closedWith.back(), entry->second.m_mask);
                    model.m_table.erase(entry);
                }
            }
        }
        ASSERT_EQ(m_reactor.m_watched.size(), model.m_table.size());
    }
}

TEST(EventHandlerRepository, FillsFdSetsFromTheMasks) {
    CNxEventHandlerRepository table;
    fd_set sets[3];
    for (fd_set& set : sets) {
        FD_ZERO(&set);
    }
    EXPECT_EQ(table.FillFdSets(sets[0], sets[1], sets[2]), -1);
    ASSERT_EQ(table.Open(), NX_OK);
    EXPECT_EQ(table.Open(), NX_ERROR_ALREADY_INITIALIZED);
    EXPECT_EQ(table.FillFdSets(sets[0], sets[1], sets[2]), -1);
    Handler reads(3);
    Handler connects(9);
    Handler writes(7);
    Handler tooLarge(FD_SETSIZE);
    table.At(3) = {&reads, NX_MASK_ACCEPT};
    table.At(4) = {&connects, NX_MASK_CONNECT};
    table.At(7) = {&writes, NX_MASK_WRITE};
    table.At(8) = {&tooLarge, NX_MASK_READ};
    EXPECT_EQ(table.FillFdSets(sets[0], sets[1], sets[2]), 9);
    for (int fd = 0; fd < FD_SETSIZE; ++fd) {
        EXPECT_EQ(FD_ISSET(fd, &sets[0]) != 0, fd == 3 || fd == 9) << fd;
        EXPECT_EQ(FD_ISSET(fd, &sets[1]) != 0, fd == 7 || fd == 9) << fd;
        EXPECT_EQ(FD_ISSET(fd, &sets[2]), 0) << fd;
    }
    EXPECT_EQ(table.Close(), NX_OK);
    EXPECT_FALSE(table.HasPlace(3));
}

// In a process of its own: the limits do not come back.
TEST(EventHandlerRepository, LimitIsRaisedToWhatIsWantedAndAnInfiniteOneRefused) {
    int actual = 0;
    rlimit limit{100, 9000};
    ASSERT_EQ(setrlimit(RLIMIT_CORE, &limit), 0);
    EXPECT_EQ(CNxEventHandlerRepository::SetRlimit(RLIMIT_CORE, 50, actual), NX_OK);
    EXPECT_EQ(actual, 100);
    EXPECT_EQ(CNxEventHandlerRepository::SetRlimit(RLIMIT_CORE, 8192, actual), NX_OK);
    EXPECT_EQ(actual, 8192);
    getrlimit(RLIMIT_CORE, &limit);
    EXPECT_EQ(limit.rlim_cur, 8192u);
    EXPECT_EQ(limit.rlim_max, 8192u);
    EXPECT_EQ(CNxEventHandlerRepository::SetRlimit(-1, 8192, actual), NX_ERROR_UNEXPECTED);
    if (getrlimit(RLIMIT_AS, &limit) == 0 && limit.rlim_cur == RLIM_INFINITY) {
        EXPECT_EQ(CNxEventHandlerRepository::SetRlimit(RLIMIT_AS, 1, actual), NX_ERROR_UNEXPECTED);
    }
}

TEST(Pipe, OpensWithBoundedBuffersAndClosesOnce) {
    CNxPipe pipe;
    EXPECT_EQ(pipe.Close(), NX_OK);
    ASSERT_EQ(pipe.Open(1000000), NX_OK);
    for (const auto& [fd, option] : {std::pair<int, int>{pipe.GetReadHandle(), SO_RCVBUF},
                                     {pipe.GetWriteHandle(), SO_SNDBUF}}) {
        int size = 0;
        socklen_t length = sizeof(size);
        ASSERT_EQ(getsockopt(fd, SOL_SOCKET, option, &size, &length), 0);
        // The kernel doubles what it is given (socket(7)).
        EXPECT_EQ(size, 2 * 65535);
    }
    EXPECT_EQ(pipe.Close(), NX_OK);
    EXPECT_EQ(pipe.GetReadHandle(), -1);
    EXPECT_EQ(pipe.GetWriteHandle(), -1);
}

}  // namespace
