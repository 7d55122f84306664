// Registration, removal and dispatch, without a demultiplexer: the hooks only keep a record.
#include <gtest/gtest.h>
#include <nx/reactor/CNxReactorBase.h>

#include <functional>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace {

class RecordingReactor : public CNxReactorBase {
public:
    int GetReactorType() override { return 0; }
    NxResult NotifyHandler(INxEventHandler* /*handler*/, long /*mask*/) override { return NX_OK; }
    NxResult RunEventLoop() override { return NX_OK; }
    NxResult StopEventLoop() override { return NX_OK; }
    void OnHandleRemoved(int fd) override { m_watched.erase(fd); }
    NxResult OnHandleRegister(int fd, long mask, INxEventHandler* /*handler*/) override {
        m_watched[fd] = mask;
        return NX_OK;
    }

    std::map<int, long> m_watched;
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

TEST_F(ReactorBase, RefusingHandlerIsDroppedAndClosedOnce) {
    EXPECT_EQ(m_reactor.RegisterHandler(&m_handler, c_readWrite), NX_OK);
    m_handler.m_onInput = [] { return -1; };
    EXPECT_EQ(Dispatch(5, c_readWrite), NX_OK);
    EXPECT_EQ(m_handler.m_outputs, 0);
    EXPECT_EQ(m_handler.m_closedWith, std::vector<long>{c_readWrite});

    m_handler.m_outputAnswer = 1;
    EXPECT_EQ(m_reactor.RegisterHandler(&m_handler, NX_MASK_WRITE), NX_OK);
    EXPECT_EQ(Dispatch(5, NX_MASK_OUTPUT), NX_OK);
    EXPECT_EQ(m_reactor.RegisterHandler(&m_handler, NX_MASK_CONNECT), NX_OK);
    EXPECT_EQ(Dispatch(5, NX_MASK_CONNECT, 1), NX_OK);
    EXPECT_EQ(m_handler.m_closedWith,
              (std::vector<long>{c_readWrite, NX_MASK_WRITE, NX_MASK_CONNECT}));
    EXPECT_EQ(m_handler.m_outputs, 1);
}

TEST_F(ReactorBase, CallbackThatChangesTheTableEndsItsOwnDispatch) {
    Handler other(5);
    for (const int answer : {0, -1}) {
        EXPECT_EQ(m_reactor.RegisterHandler(&m_handler, c_readWrite), NX_OK);
        m_handler.m_onInput = [&] {
            m_reactor.RemoveHandler(&m_handler, NX_MASK_ALL_EVENTS);
            return answer;
        };
        EXPECT_EQ(Dispatch(5, c_readWrite), NX_OK);
        EXPECT_EQ(m_reactor.RegisterHandler(&m_handler, c_readWrite), NX_OK);
        m_handler.m_onInput = [&] {
            EXPECT_EQ(m_reactor.RegisterHandler(&other, c_readWrite), NX_ERROR_FOUND);
            return answer;
        };
        EXPECT_EQ(Dispatch(5, c_readWrite), NX_OK);
        m_reactor.RemoveHandler(&other, NX_MASK_ALL_EVENTS);
    }
    // It keeps its place but gives up writing.
    EXPECT_EQ(m_reactor.RegisterHandler(&m_handler, c_readWrite), NX_OK);
    m_handler.m_onInput = [&] {
        EXPECT_EQ(m_reactor.RemoveHandler(&m_handler, NX_MASK_WRITE), NX_ERROR_FOUND);
        return 0;
    };
    EXPECT_EQ(Dispatch(5, c_readWrite), NX_OK);
    EXPECT_EQ(m_handler.m_outputs + other.m_outputs, 0);
    EXPECT_TRUE(m_handler.m_closedWith.empty());
    EXPECT_TRUE(other.m_closedWith.empty());
}

#ifdef NXBASE_CHECK_THREADS
TEST_F(ReactorBase, RemovalThroughAnotherHandlerIsSaid) {
    Handler other(5);
    EXPECT_EQ(m_reactor.RegisterHandler(&m_handler, c_readWrite), NX_OK);
    testing::internal::CaptureStderr();
    EXPECT_EQ(m_reactor.RemoveHandler(&other, NX_MASK_WRITE), NX_ERROR_FOUND);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("which has descriptor 5 now"),
              std::string::npos);
    testing::internal::CaptureStderr();
    EXPECT_EQ(m_reactor.RemoveHandler(&m_handler, NX_MASK_READ), NX_OK);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}
#endif

// The table written out as the rules say: what a descriptor is registered with, and what each
// operation answers.
struct Model {
    using Entry = std::pair<Handler*, long>;

    NxResult Register(Handler& handler, long mask) {
        if ((mask & NX_MASK_ALL_EVENTS) == 0) {
            return NX_ERROR_INVALID_ARG;
        }
        const Entry entry{&handler, mask & NX_MASK_ALL_EVENTS};
        Entry& place = m_table.try_emplace(handler.m_fd, entry).first->second;
        return std::exchange(place, entry) == entry ? NX_OK : NX_ERROR_FOUND;
    }

    NxResult Remove(int fd, long mask) {
        if ((mask & NX_MASK_ALL_EVENTS) == 0) {
            return NX_ERROR_INVALID_ARG;
        }
        const auto found = m_table.find(fd);
        if (found == m_table.end() || (found->second.second & mask) == 0) {
            return NX_OK;
        }
        found->second.second &= ~mask;
        return found->second.second == 0 ? m_table.erase(found), NX_OK : NX_ERROR_FOUND;
    }

    std::map<int, Entry> m_table;
};

TEST_F(ReactorBase, RandomOperationsAgreeWithALiteralTable) {
    // What it says of removals through other handlers.
    testing::internal::CaptureStderr();
    std::vector<Handler> handlers;
    for (int i = 0; i < 12; ++i) {
        handlers.emplace_back(20 + i / 3);
    }
    Model model;
    std::mt19937 random(7);
    for (int step = 0; step < 20000; ++step) {
        Handler& handler = handlers[random() % handlers.size()];
        const long mask = static_cast<long>(random() % 0x200);
        const auto entry = model.m_table.find(handler.m_fd);
        const auto operation = random() % 3;
        if (operation == 0) {
            ASSERT_EQ(m_reactor.RegisterHandler(&handler, mask), model.Register(handler, mask));
        } else if (operation == 1) {
            ASSERT_EQ(m_reactor.RemoveHandler(&handler, mask), model.Remove(handler.m_fd, mask));
        } else if (entry == model.m_table.end()) {
            ASSERT_EQ(Dispatch(handler.m_fd, mask), NX_ERROR_NOT_FOUND);
        } else {
            const auto [called, registered] = entry->second;
            const bool closed = (mask & NX_MASK_CLOSE) != 0;
            const long active = closed ? 0 : mask & registered;
            const int inputs = called->m_inputs + ((active & NX_MASK_INPUT) != 0 ? 1 : 0);
            const int outputs = called->m_outputs + ((active & NX_MASK_OUTPUT) != 0 ? 1 : 0);
            ASSERT_EQ(Dispatch(handler.m_fd, mask), NX_OK);
            ASSERT_EQ(called->m_inputs, inputs);
            ASSERT_EQ(called->m_outputs, outputs);
            if (closed) {
                ASSERT_EQ(called->m_closedWith.back(), registered);
                model.m_table.erase(entry);
            }
        }
        ASSERT_EQ(m_reactor.m_watched.size(), model.m_table.size());
    }
    testing::internal::GetCapturedStderr();
}

}  // namespace
