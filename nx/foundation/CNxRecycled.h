// Memory for small objects that one thread makes and another ends, which is the slow case of every
// allocator: events and message blocks.
#pragma once

#include <cstddef>
#include <new>

// A base without data. An object of up to 128 bytes takes the place that one of its size has left
// on this or another thread; at most some hundred places of one size are kept in each thread and as
// many between them. All of them come from ::operator new, and ::operator delete may free them; so
// may these what comes from there. A class with operators of its own keeps those; one with a second
// base that has others names its choice with `using`. Any thread.
class CNxRecycled {
public:
    static void* operator new(std::size_t size);
    static void* operator new(std::size_t size, const std::nothrow_t& tag) noexcept;
    static void operator delete(void* memory, std::size_t size) noexcept;
    static void operator delete(void* memory, const std::nothrow_t& tag) noexcept;

    // The others of the language, which those above would hide.
    static void* operator new(std::size_t size, std::align_val_t alignment) {
        return ::operator new(size, alignment);
    }
    static void* operator new(std::size_t size, std::align_val_t alignment,
                              const std::nothrow_t& tag) noexcept {
        return ::operator new(size, alignment, tag);
    }
    static void* operator new(std::size_t /*size*/, void* place) noexcept { return place; }
    static void operator delete(void* memory, std::size_t /*size*/,
                                std::align_val_t alignment) noexcept {
        ::operator delete(memory, alignment);
    }
    static void operator delete(void* memory, std::align_val_t alignment,
                                const std::nothrow_t& /*tag*/) noexcept {
        ::operator delete(memory, alignment);
    }
    static void operator delete(void* /*memory*/, void* /*place*/) noexcept {}

protected:
    CNxRecycled() = default;
    ~CNxRecycled() = default;
};
