#include "FailingCalls.h"

#include <dlfcn.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <csignal>

namespace {

struct CCall {
    std::atomic<int> m_toFail{0};
    std::atomic<int> m_error{0};
    std::atomic<int> m_made{0};
};
CCall g_calls[FailingCalls::CALLS];

// The error that the call is to fail with, 0 for none.
int NextError(FailingCalls::ECall which) {
    CCall& call = g_calls[which];
    call.m_made.fetch_add(1);
    int left = call.m_toFail.load();
    while (left > 0 && !call.m_toFail.compare_exchange_weak(left, left - 1)) {
    }
    return left > 0 ? call.m_error.load() : 0;
}

template <class Function>
Function Real(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" ssize_t send(int fd, const void* data, size_t size, int flags) {
    static const auto s_real = Real<decltype(&send)>("send");
    errno = NextError(FailingCalls::SEND);
    return errno != 0 ? -1 : s_real(fd, data, size, flags);
}

extern "C" int epoll_ctl(int epoll, int operation, int fd, epoll_event* event) noexcept {
    static const auto s_real = Real<decltype(&epoll_ctl)>("epoll_ctl");
    errno = NextError(FailingCalls::EPOLL_CTL);
    return errno != 0 ? -1 : s_real(epoll, operation, fd, event);
}

extern "C" int getsockopt(int fd, int level, int name, void* value, socklen_t* size) noexcept {
    static const auto s_real = Real<decltype(&getsockopt)>("getsockopt");
    errno = NextError(FailingCalls::GETSOCKOPT);
    return errno != 0 ? -1 : s_real(fd, level, name, value, size);
}

extern "C" int pthread_sigqueue(pthread_t thread, int signal, const union sigval value) noexcept {
    static const auto s_real = Real<decltype(&pthread_sigqueue)>("pthread_sigqueue");
    const int error = NextError(FailingCalls::SIGQUEUE);
    return error != 0 ? error : s_real(thread, signal, value);
}

FailingCalls::FailingCalls() {
    for (CCall& call : g_calls) {
        call.m_made = 0;
    }
}

FailingCalls::~FailingCalls() {
    for (CCall& call : g_calls) {
        call.m_toFail = 0;
    }
}

void FailingCalls::Fail(ECall call, int error, int count) {
    g_calls[call].m_error = error;
    g_calls[call].m_toFail = count;
}

int FailingCalls::Count(ECall call) const {
    return g_calls[call].m_made.load();
}
