#include <nx/reactor/CNxReactorEpoll.h>

#include "ReactorSupport.h"

namespace {

TEST(ReactorEpoll, WhatCannotBeWatchedIsRefused) {
    CNxReactorEpoll reactor;
    ASSERT_EQ(reactor.Open(), NX_OK);
    class Fixed : public INxEventHandler {
    public:
        explicit Fixed(int fd) : m_fd(fd) {}
        int GetHandle() const override { return m_fd; }

    private:
        const int m_fd;
    };
    const int file = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
    Fixed regular(file);
    Fixed closed(file + 100);
    Fixed negative(-1);
    for (Fixed* handler : {&regular, &closed, &negative}) {
        EXPECT_EQ(reactor.RegisterHandler(handler, NX_MASK_READ), NX_ERROR_FAILURE);
        EXPECT_EQ(reactor.RemoveHandler(handler, NX_MASK_READ), NX_OK);
    }
    EXPECT_EQ(reactor.ProcessHandleEvent(file, NX_MASK_READ, 0, 0, 0), NX_ERROR_NOT_FOUND);
    close(file);
    reactor.Close();
}

}  // namespace
