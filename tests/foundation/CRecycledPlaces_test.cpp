#include <gtest/gtest.h>
#include <nx/foundation/CRecycledPlaces.h>

#include <new>
#include <set>
#include <thread>

namespace {

constexpr size_t c_size = 40;
// More than a thread keeps, and than fits between them.
constexpr int c_count = 1000;

// The last of it uses the thread's places after the thread has given them up.
struct AtTheEndOfTheThread {
    ~AtTheEndOfTheThread() {
        EXPECT_EQ(CRecycledPlaces::Take(c_size), nullptr);
        CRecycledPlaces::Leave(m_place, c_size);
    }
    void* m_place = nullptr;
};

TEST(RecycledPlaces, WhatOneThreadLeavesAnotherGetsOnce) {
    std::set<void*> left;
    std::thread([&left] {
        thread_local AtTheEndOfTheThread end;
        end.m_place = ::operator new(c_size);
        for (int i = 0; i < c_count; ++i) {
            left.insert(::operator new(c_size));
        }
        for (void* const place : left) {
            CRecycledPlaces::Leave(place, c_size);
        }
    }).join();
    EXPECT_EQ(CRecycledPlaces::Take(c_size + 8), nullptr);
    EXPECT_EQ(CRecycledPlaces::Take(c_size + 1), nullptr);
    std::set<void*> got;
    for (void* place = nullptr; (place = CRecycledPlaces::Take(c_size)) != nullptr;) {
        EXPECT_EQ(left.count(place), 1u);
        EXPECT_TRUE(got.insert(place).second);
    }
#ifndef __SANITIZE_ADDRESS__  // where nothing is kept
    EXPECT_GE(got.size(), 100u);
#endif
    for (void* const place : got) {
        ::operator delete(place);
    }
}

}  // namespace
