// Registration, removal and dispatch, without a demultiplexer: the hooks only keep a record.
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

    NxResult Dispatch(long mask) { return m_reactor.ProcessHandleEvent(5, mask, 0, 0, 0); }

    RecordingReactor m_reactor;
    Handler m_handler{5};
};

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
            EXPECT_EQ(Dispatch(c_readWrite), NX_OK);
            m_reactor.RemoveHandler(&other, NX_MASK_ALL_EVENTS);
        }
    }
    EXPECT_EQ(m_handler.m_outputs + other.m_outputs, 0);
    EXPECT_EQ(m_handler.m_closedWith, std::vector<long>{NX_MASK_READ});
    EXPECT_TRUE(other.m_closedWith.empty());
}

TEST_F(ReactorBase, HandlerIsCalledForWhatIsLeftOfItsMaskUntilItRefuses) {
    Handler other(5);
    other.m_onOutput = [&] { return other.m_outputs - 1; };
    EXPECT_EQ(m_reactor.RegisterHandler(&m_handler, ~NX_MASK_ALL_EVENTS), NX_ERROR_INVALID_ARG);
    EXPECT_EQ(Dispatch(c_readWrite), NX_ERROR_NOT_FOUND);
    EXPECT_EQ(m_reactor.RegisterHandler(&m_handler, NX_MASK_READ | NX_MASK_CLOSE), NX_OK);
    EXPECT_EQ(m_reactor.RegisterHandler(&m_handler, NX_MASK_READ), NX_OK);
    EXPECT_EQ(Dispatch(c_readWrite), NX_OK);
    EXPECT_EQ(m_reactor.RegisterHandler(&other, c_readWrite), NX_ERROR_FOUND);
    testing::internal::CaptureStderr();
    EXPECT_EQ(m_reactor.RemoveHandler(&m_handler, NX_MASK_READ), NX_ERROR_FOUND);
    const std::string said = testing::internal::GetCapturedStderr();
#ifdef NXBASE_CHECK_THREADS
    EXPECT_NE(said.find("which has descriptor 5 now"), std::string::npos) << said;
#endif
    EXPECT_EQ(m_reactor.m_watched[5], c_readWrite);
    EXPECT_EQ(Dispatch(c_readWrite), NX_OK);
    EXPECT_EQ(Dispatch(c_readWrite), NX_OK);
    EXPECT_EQ(m_reactor.m_watched.count(5), 0U);
    EXPECT_EQ(m_handler.m_inputs, 1);
    EXPECT_EQ(other.m_outputs, 2);
    EXPECT_EQ(m_handler.m_outputs + other.m_inputs, 0);
    EXPECT_TRUE(m_handler.m_closedWith.empty());
    EXPECT_EQ(other.m_closedWith, std::vector<long>{NX_MASK_WRITE});
}

}  // namespace
