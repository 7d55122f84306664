#include "FailingNew.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

constexpr long c_never = -1;

std::atomic<long> g_left{c_never};  // until the one that fails
std::atomic<bool> g_onwards{false};
std::atomic<long> g_failed{0};

bool Fails() {
    long left = g_left.load();
    while (left > 0 && !g_left.compare_exchange_weak(left, left - 1)) {
    }
    const bool fails = left == 0 && (g_onwards || g_left.compare_exchange_strong(left, c_never));
    g_failed += fails ? 1 : 0;
    return fails;
}

}  // namespace

FailingNew::FailingNew(long n, EHow how) {
    g_failed = 0;
    g_onwards = how == ONWARDS;
    g_left = n;
}

FailingNew::~FailingNew() {
    g_left = c_never;
}

long FailingNew::CountFailed() {
    return g_failed;
}

void* operator new(size_t size) {
    void* const memory = Fails() ? nullptr : std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

void* operator new(size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return Fails() ? nullptr : std::malloc(size == 0 ? 1 : size);
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, size_t /*size*/) noexcept {
    std::free(memory);
}
