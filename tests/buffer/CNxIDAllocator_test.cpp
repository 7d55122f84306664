#include <gtest/gtest.h>
#include <nx/buffer/CNxIDAllocator.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <deque>
#include <fstream>
#include <random>

namespace {

constexpr unsigned int c_top = 4294967295u;

long GetResidentBytes() {
    long total = 0;
    long resident = 0;
    std::ifstream("/proc/self/statm") >> total >> resident;
    return resident * sysconf(_SC_PAGESIZE);
}

TEST(CNxIDAllocator, RefusedRangesChangeNothing) {
    CNxIDAllocator ids;
    EXPECT_EQ(ids.FreeID(1), 0);
    EXPECT_EQ(ids.Init(3, 4), NX_OK);
    const std::pair<unsigned, unsigned> refused[] = {{0, 10}, {5, 5},     {6, 5},
                                                     {1, 0},  {1, c_top}, {c_top - 1, c_top}};
    for (const auto& [min, max] : refused) {
        EXPECT_EQ(ids.Init(min, max), NX_ERROR_FAILURE) << min << ".." << max;
    }
    for (const unsigned outside : {0u, 2u, 5u, c_top}) {
        EXPECT_EQ(ids.FreeID(outside), 0) << outside;
    }
    EXPECT_EQ(ids.GetAvaiableIDCount(), 2u);
    EXPECT_EQ(ids.AllocID(), 3u);
    EXPECT_EQ(ids.AllocID(), 4u);
    EXPECT_EQ(ids.AllocID(), 0u);
}

// Printed, because how fast and how small it is depends on the machine; a list of the identifiers
// would take minutes and a hundred gigabytes.
TEST(CNxIDAllocator, RangeOfBillionsIsReadyAtOnce) {
    CNxIDAllocator ids;
    const long before = GetResidentBytes();
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(ids.Init(1, c_top - 1), NX_OK);
    const std::chrono::duration<double, std::micro> took = std::chrono::steady_clock::now() - start;
    const long more = GetResidentBytes() - before;
    std::printf("Init(1, %u): %.1f us, %ld KiB more resident\n", c_top - 1, took.count(),
                more / 1024);
    EXPECT_LT(more, 1 << 20);
    EXPECT_EQ(ids.GetAvaiableIDCount(), 4294967294ul);
    EXPECT_EQ(ids.AllocID(), 1u);
    EXPECT_EQ(ids.FreeID(c_top - 1), 1);
    EXPECT_EQ(ids.AllocID(), c_top - 1);
    EXPECT_EQ(ids.AllocID(), 2u);
}

// The model is the list of identifiers itself. Identifiers are freed twice, too, ranges overlap.
TEST(CNxIDAllocator, OrderIsThatOfOneListFreedAtTheHead) {
    const char* given = std::getenv("NXBASE_TEST_STEPS");
    const long steps = given == nullptr ? 50000 : std::atol(given);
    std::mt19937 engine(4);
    const auto random = [&engine](unsigned below) {
        return static_cast<unsigned>(engine() % below);
    };
    for (const unsigned first : {1u, 1000u, c_top - 100}) {
        CNxIDAllocator ids;
        std::deque<unsigned> model;
        unsigned min = 0;
        unsigned max = 0;
        for (long step = 0; step < steps; ++step) {
            const unsigned choice = random(1000);
            if (choice < 5 && model.size() < 10000) {
                const unsigned low = first + random(50);
                const unsigned high = low + random(100);
                const bool valid = low < high && high != c_top;
                ASSERT_EQ(ids.Init(low, high), valid ? NX_OK : NX_ERROR_FAILURE);
                for (unsigned id = low; valid && id <= high; ++id) {
                    model.push_back(id);
                }
                min = valid ? low : min;
                max = valid ? high : max;
            } else if (choice < 500) {
                const unsigned id = first - 10 + random(150);
                const bool valid = id != 0 && id >= min && id <= max;
                ASSERT_EQ(ids.FreeID(id), valid ? 1 : 0);
                if (valid) {
                    model.push_front(id);
                }
            } else {
                const unsigned expected = model.empty() ? 0 : model.front();
                ASSERT_EQ(ids.AllocID(), expected) << "step " << step;
                if (!model.empty()) {
                    model.pop_front();
                }
            }
            ASSERT_EQ(ids.GetAvaiableIDCount(), model.size());
        }
    }
}

}  // namespace
