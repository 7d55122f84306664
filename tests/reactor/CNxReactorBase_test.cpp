// Registration, removal and dispatch, without a demultiplexer: the hooks only keep a record.
#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "ReactorSupport.h"

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

    m_handler.m_onOutput = [] { return 1; };
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
    const std::function<NxResult()> changes[] = {
        [&] { return m_reactor.RemoveHandler(&m_handler, NX_MASK_ALL_EVENTS); },
        [&] { return m_reactor.RegisterHandler(&other, c_readWrite); },
        // It keeps its place but gives up writing.
        [&] { return m_reactor.RemoveHandler(&m_handler, NX_MASK_WRITE); }};
    for (const auto& change : changes) {
        for (const int answer : {0, -1}) {
            EXPECT_EQ(m_reactor.RegisterHandler(&m_handler, c_readWrite), NX_OK);
            m_handler.m_onInput = [&] {
                EXPECT_EQ(change(), &change == changes ? NX_OK : NX_ERROR_FOUND);
                return answer;
            };
            EXPECT_EQ(Dispatch(5, c_readWrite), NX_OK);
            m_reactor.RemoveHandler(&other, NX_MASK_ALL_EVENTS);
        }
    }
    EXPECT_EQ(m_handler.m_outputs + other.m_outputs, 0);
    EXPECT_EQ(m_handler.m_closedWith, std::vector<long>{NX_MASK_READ});
    EXPECT_TRUE(other.m_closedWith.empty());
}

// What each call answers after those before it, and for what the descriptor is watched then.
TEST_F(ReactorBase, EveryCallAnswersByWhatTheTableHolds) {
    Handler other(5);
    enum ECall { REGISTER, REMOVE, DISPATCH };
    const struct {
        ECall m_call;
        Handler& m_handler;
        long m_mask;
        NxResult m_result;
        long m_watched;
    } rows[] = {
        {REGISTER, m_handler, 0, NX_ERROR_INVALID_ARG, 0},
        {REGISTER, m_handler, ~NX_MASK_ALL_EVENTS, NX_ERROR_INVALID_ARG, 0},
        {DISPATCH, m_handler, c_readWrite, NX_ERROR_NOT_FOUND, 0},
        {REMOVE, m_handler, NX_MASK_READ, NX_OK, 0},
        {REGISTER, m_handler, NX_MASK_READ, NX_OK, NX_MASK_READ},
        {REGISTER, m_handler, NX_MASK_READ | NX_MASK_CLOSE, NX_OK, NX_MASK_READ},
        {REMOVE, m_handler, NX_MASK_WRITE, NX_OK, NX_MASK_READ},
        {REGISTER, m_handler, c_readWrite, NX_ERROR_FOUND, c_readWrite},
        {DISPATCH, m_handler, NX_MASK_READ, NX_OK, c_readWrite},
        {REGISTER, other, c_readWrite, NX_ERROR_FOUND, c_readWrite},
        {REMOVE, m_handler, NX_MASK_READ, NX_ERROR_FOUND, c_readWrite},
        {REMOVE, other, NX_MASK_READ, NX_OK, c_readWrite},
        {REMOVE, other, ~NX_MASK_ALL_EVENTS, NX_ERROR_INVALID_ARG, c_readWrite},
        {DISPATCH, other, c_readWrite, NX_OK, c_readWrite},
        {DISPATCH, other, c_readWrite | NX_MASK_CLOSE, NX_OK, 0},
        {REGISTER, other, NX_MASK_CONNECT, NX_OK, NX_MASK_CONNECT},
        {DISPATCH, other, NX_MASK_CONNECT, NX_OK, NX_MASK_CONNECT},
        {REMOVE, m_handler, NX_MASK_ALL_EVENTS, NX_OK, 0},
    };
    testing::internal::CaptureStderr();
    for (const auto& row : rows) {
        const auto number = &row - rows;
        const NxResult result =
            row.m_call == REGISTER ? m_reactor.RegisterHandler(&row.m_handler, row.m_mask)
            : row.m_call == REMOVE ? m_reactor.RemoveHandler(&row.m_handler, row.m_mask)
                                   : Dispatch(5, row.m_mask);
        EXPECT_EQ(result, row.m_result) << "row " << number;
        EXPECT_EQ(m_reactor.m_watched[5], row.m_watched) << "row " << number;
    }
    const std::string said = testing::internal::GetCapturedStderr();
#ifdef NXBASE_CHECK_THREADS
    // The two removals through the handler that is not registered.
    EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 2) << said;
    EXPECT_NE(said.find("which has descriptor 5 now"), std::string::npos) << said;
#endif
    EXPECT_EQ(m_handler.m_inputs, 1);
    EXPECT_EQ(m_handler.m_outputs, 0);
    EXPECT_EQ(other.m_inputs, 0);
    EXPECT_EQ(other.m_outputs, 2);
    EXPECT_TRUE(m_handler.m_closedWith.empty());
    EXPECT_EQ(other.m_closedWith, std::vector<long>{NX_MASK_WRITE});
}

}  // namespace
