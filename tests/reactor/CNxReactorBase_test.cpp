// Registration, removal and dispatch, without a demultiplexer: the hooks only keep a record.
#include <gtest/gtest.h>
#include <nx/reactor/CNxReactorBase.h>

#include <functional>
#include <map>
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
    m_reactor.RegisterHandler(&m_handler, c_readWrite);
    m_handler.m_onInput = [] { return -1; };
    EXPECT_EQ(Dispatch(5, c_readWrite), NX_OK);
    EXPECT_EQ(m_handler.m_outputs, 0);
    EXPECT_EQ(m_handler.m_closedWith, std::vector<long>{c_readWrite});

    m_handler.m_outputAnswer = 1;
    m_reactor.RegisterHandler(&m_handler, NX_MASK_WRITE);
    EXPECT_EQ(Dispatch(5, NX_MASK_OUTPUT), NX_OK);
    m_reactor.RegisterHandler(&m_handler, NX_MASK_CONNECT);
    EXPECT_EQ(Dispatch(5, NX_MASK_CONNECT, 1), NX_OK);
    EXPECT_EQ(m_handler.m_closedWith,
              (std::vector<long>{c_readWrite, NX_MASK_WRITE, NX_MASK_CONNECT}));
    EXPECT_EQ(m_handler.m_outputs, 1);
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

TEST_F(ReactorBase, AnswersTellWhetherTheRegistrationChanged) {
    Handler other(5);
    const auto registering = [&](Handler& handler, long mask) {
        return m_reactor.RegisterHandler(&handler, mask);
    };
    EXPECT_EQ(registering(m_handler, 0x1000), NX_ERROR_INVALID_ARG);
    EXPECT_EQ(registering(m_handler, c_readWrite), NX_OK);
    EXPECT_EQ(registering(m_handler, c_readWrite), NX_OK);
    EXPECT_EQ(registering(m_handler, NX_MASK_READ), NX_ERROR_FOUND);
    EXPECT_EQ(registering(other, c_readWrite), NX_ERROR_FOUND);
    EXPECT_EQ(m_reactor.RemoveHandler(&other, 0), NX_ERROR_INVALID_ARG);
    EXPECT_EQ(m_reactor.RemoveHandler(&other, NX_MASK_ACCEPT), NX_OK);
    EXPECT_EQ(m_reactor.RemoveHandler(&other, NX_MASK_READ), NX_ERROR_FOUND);
    EXPECT_EQ(m_reactor.m_watched[5], c_readWrite);
    EXPECT_EQ(m_reactor.RemoveHandler(&other, NX_MASK_WRITE), NX_OK);
    EXPECT_TRUE(m_reactor.m_watched.empty());
    EXPECT_EQ(Dispatch(5, NX_MASK_READ), NX_ERROR_NOT_FOUND);
}

}  // namespace
