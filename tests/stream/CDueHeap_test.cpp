#include <gtest/gtest.h>
#include <nx/stream/CDueHeap.h>

#include <array>
#include <random>
#include <set>
#include <utility>

namespace {

TEST(DueHeap, TheFirstIsTheEarliestWhateverIsSetAndRemoved) {
    std::mt19937 random(1);
    std::array<CDueMember, 200> members;
    std::set<std::pair<std::int64_t, CDueMember*>> model;
    CDueHeap heap;
    for (int i = 0; i < 20000; ++i) {
        CDueMember& member = members[random() % members.size()];
        model.erase({member.GetDue(), &member});
        if (random() % 3 == 0) {
            heap.Remove(member);
        } else {
            heap.Set(member, random() % 1000);
            model.emplace(member.GetDue(), &member);
        }
        ASSERT_EQ(heap.GetFirst() == nullptr, model.empty());
        ASSERT_TRUE(model.empty() || heap.GetFirst()->GetDue() == model.begin()->first);
    }
    while (heap.GetFirst() != nullptr) {
        ASSERT_EQ(heap.GetFirst()->GetDue(), model.begin()->first);
        model.erase({heap.GetFirst()->GetDue(), heap.GetFirst()});
        heap.Remove(*heap.GetFirst());
    }
    EXPECT_TRUE(model.empty());
}

}  // namespace
