#include "ReactorSupport.h"

namespace {

using ReactorSelect = OpenReactor<CNxReactorSelect>;

TEST_F(ReactorSelect, DescriptorThatNoSetHoldsIsRefused) {
    End end;
    Handler last(fcntl(end.m_fd, F_DUPFD_CLOEXEC, FD_SETSIZE - 1));
    Handler tooLarge(fcntl(end.m_fd, F_DUPFD_CLOEXEC, FD_SETSIZE));
    if (tooLarge.m_fd == -1) {
        GTEST_SKIP() << "the limit of open descriptors is too low";
    }
    Watch(last, NX_MASK_READ);
    EXPECT_EQ(m_reactor.RegisterHandler(&tooLarge, NX_MASK_READ), NX_ERROR_INVALID_ARG);
    StopSoon();
    Run();
    m_reactor.Close();
    close(last.m_fd);
    close(tooLarge.m_fd);
}

}  // namespace
