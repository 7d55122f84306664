#include <nx/reactor/CNxReactorSelect.h>

#include "ReactorSupport.h"

namespace {

TEST(ReactorSelect, DescriptorThatNoSetHoldsIsRefused) {
    CNxReactorSelect reactor;
    ASSERT_EQ(reactor.Open(), NX_OK);
    End end;
    Handler last(fcntl(end.GetHandle(), F_DUPFD_CLOEXEC, FD_SETSIZE - 1));
    Handler tooLarge(fcntl(end.GetHandle(), F_DUPFD_CLOEXEC, FD_SETSIZE));
    if (tooLarge.m_fd == -1) {
        GTEST_SKIP() << "the limit of open descriptors is too low";
    }
    EXPECT_EQ(reactor.RegisterHandler(&last, NX_MASK_READ), NX_OK);
    EXPECT_EQ(reactor.RegisterHandler(&tooLarge, NX_MASK_READ), NX_ERROR_INVALID_ARG);
    EventCounts counts;
    StopSoon(reactor, counts);
    EXPECT_EQ(reactor.RunEventLoop(), NX_OK);
    reactor.Close();
    close(last.m_fd);
    close(tooLarge.m_fd);
}

}  // namespace
