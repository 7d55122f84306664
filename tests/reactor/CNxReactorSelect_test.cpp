#include <nx/reactor/CNxReactorSelect.h>

#include "ReactorSupport.h"

namespace {

class ReactorSelect : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(m_reactor.Open(), NX_OK); }
    void TearDown() override { m_reactor.Close(); }

    CNxReactorSelect m_reactor;
    EventCounts m_counts;
};

class Fixed : public INxEventHandler {
public:
    explicit Fixed(int fd) : m_fd(fd) {}
    int GetHandle() const override { return m_fd; }

private:
    const int m_fd;
};

TEST_F(ReactorSelect, DescriptorThatNoSetHoldsIsRefused) {
    End end;
    Fixed last(fcntl(end.GetHandle(), F_DUPFD_CLOEXEC, FD_SETSIZE - 1));
    Fixed tooLarge(fcntl(end.GetHandle(), F_DUPFD_CLOEXEC, FD_SETSIZE));
    if (tooLarge.GetHandle() == -1) {
        GTEST_SKIP() << "the limit of open descriptors is too low";
    }
    EXPECT_EQ(m_reactor.RegisterHandler(&last, NX_MASK_READ), NX_OK);
    EXPECT_EQ(m_reactor.RegisterHandler(&tooLarge, NX_MASK_READ), NX_ERROR_INVALID_ARG);
    EXPECT_EQ(m_reactor.ProcessHandleEvent(tooLarge.GetHandle(), NX_MASK_READ, 0, 0, 0),
              NX_ERROR_NOT_FOUND);
    EXPECT_EQ(m_reactor.RegisterHandler(&last, NX_MASK_WRITE), NX_ERROR_FOUND);
    StopSoon(m_reactor, m_counts);
    EXPECT_EQ(m_reactor.RunEventLoop(), NX_OK);
    close(last.GetHandle());
    close(tooLarge.GetHandle());
}

TEST_F(ReactorSelect, HandlerIsCalledAsLongAsItLeavesInputAndKeepsItsDescriptorBlocking) {
    End end([&](End& self) {
        char byte = 0;
        EXPECT_EQ(read(self.GetHandle(), &byte, 1), 1);
        return self.m_inputs < 3 ? 0 : static_cast<int>(m_reactor.StopEventLoop());
    });
    ASSERT_EQ(m_reactor.RegisterHandler(&end, NX_MASK_READ), NX_OK);
    EXPECT_EQ(fcntl(end.GetHandle(), F_GETFL) & O_NONBLOCK, 0);
    for (int i = 0; i < 3; ++i) {
        end.Send();
    }
    EXPECT_EQ(m_reactor.RunEventLoop(), NX_OK);
    EXPECT_EQ(end.m_inputs, 3);
}

}  // namespace
