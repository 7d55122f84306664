#include <tests/support/FailingNew.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<bool> s_isOn{false};
std::atomic<long> s_made{0};
std::atomic<long> s_skip{0};
std::atomic<long> s_count{0};

void* Allocate(std::size_t size) {
    if (s_isOn.load(std::memory_order_relaxed)) {
        const long number = s_made.fetch_add(1);
        if (number >= s_skip && number - s_skip < s_count) {
            return nullptr;
        }
    }
    return std::malloc(size == 0 ? 1 : size);
}

}  // namespace

namespace failing_new {

void Fail(long skip, long count) {
    s_made = 0;
    s_skip = skip;
    s_count = count;
    s_isOn = true;
}

long GetFailed() {
    return std::clamp(s_made - s_skip, 0L, s_count.load());
}

long Stop() {
    s_isOn = false;
    return s_made;
}

}  // namespace failing_new

void* operator new(std::size_t size) {
    void* const memory = Allocate(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}
void* operator new[](std::size_t size) {
    return operator new(size);
}
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return Allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return Allocate(size);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}
