#include <gtest/gtest.h>
#include <nx/buffer/CNxIDAllocator.h>

#include <utility>

namespace {

constexpr unsigned int c_top = 4294967295u;

TEST(CNxIDAllocator, GivesTheLastFreedFirstThenTheRangesInTheirOrder) {
    CNxIDAllocator ids;
    const std::pair<unsigned, unsigned> refused[] = {{0, 5}, {5, 5}, {6, 5}, {1, c_top}};
    for (const auto& [min, max] : refused) {
        EXPECT_EQ(ids.Init(min, max), NX_ERROR_FAILURE);
    }
    EXPECT_EQ(ids.AllocID(), 0u);
    ASSERT_EQ(ids.Init(c_top - 2, c_top - 1), NX_OK);
    for (const unsigned id : {c_top - 2, c_top - 1, 0u}) {
        EXPECT_EQ(ids.AllocID(), id);
    }
    EXPECT_EQ(ids.GetAvaiableIDCount(), 0u);
    ASSERT_EQ(ids.Init(3, 4), NX_OK);
    // A list of the identifiers would take minutes and a hundred gigabytes.
    ASSERT_EQ(ids.Init(2, c_top - 1), NX_OK);
    EXPECT_EQ(ids.GetAvaiableIDCount(), c_top);
    for (const unsigned id : {3u, 4u, 2u}) {
        EXPECT_EQ(ids.AllocID(), id);
    }
    for (const unsigned id : {2u, c_top - 1, 2u}) {
        EXPECT_EQ(ids.FreeID(id), 1);
    }
    for (const unsigned id : {0u, 1u, c_top}) {
        EXPECT_EQ(ids.FreeID(id), 0);
    }
    EXPECT_EQ(ids.GetAvaiableIDCount(), c_top);
    for (const unsigned id : {2u, c_top - 1, 2u, 3u}) {
        EXPECT_EQ(ids.AllocID(), id);
    }
}

}  // namespace
