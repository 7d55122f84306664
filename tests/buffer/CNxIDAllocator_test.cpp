#include <gtest/gtest.h>
#include <nx/buffer/CNxIDAllocator.h>
#include <sys/resource.h>

#include <deque>
#include <random>

namespace {

constexpr unsigned int c_top = 4294967295u;

long GetPeakKibibytes() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

// A list of the identifiers would take minutes and a hundred gigabytes.
TEST(CNxIDAllocator, RangeOfBillionsTakesNoMemory) {
    CNxIDAllocator ids;
    const long before = GetPeakKibibytes();
    ASSERT_EQ(ids.Init(1, c_top - 1), NX_OK);
    EXPECT_LT(GetPeakKibibytes() - before, 1024);
    EXPECT_EQ(ids.GetAvaiableIDCount(), 4294967294ul);
    EXPECT_EQ(ids.FreeID(c_top - 1), 1);
    EXPECT_EQ(ids.AllocID(), c_top - 1);
    EXPECT_EQ(ids.AllocID(), 1u);
}

// The model is the list of identifiers itself. Identifiers are freed twice, too, ranges overlap,
// and those that are refused change nothing.
TEST(CNxIDAllocator, OrderIsThatOfOneListFreedAtTheHead) {
    std::mt19937 engine(4);
    const auto random = [&engine](unsigned below) {
        return static_cast<unsigned>(engine() % below);
    };
    for (const unsigned first : {0u, 1000u, c_top - 30}) {
        CNxIDAllocator ids;
        std::deque<unsigned> model;
        unsigned min = 0;
        unsigned max = 0;
        for (int step = 0; step < 50000; ++step) {
            const unsigned choice = random(1000);
            if (choice < 5 && model.size() < 10000) {
                const unsigned low = first + random(20);
                const unsigned high = low + random(40);
                const bool isValid = low != 0 && low < high && high != c_top;
                ASSERT_EQ(ids.Init(low, high), isValid ? NX_OK : NX_ERROR_FAILURE);
                for (unsigned id = low; isValid && id <= high; ++id) {
                    model.push_back(id);
                }
                min = isValid ? low : min;
                max = isValid ? high : max;
            } else if (choice < 500) {
                const unsigned id = first - 10 + random(80);
                const bool isValid = id != 0 && id >= min && id <= max;
                ASSERT_EQ(ids.FreeID(id), isValid ? 1 : 0);
                if (isValid) {
                    model.push_front(id);
                }
            } else {
                ASSERT_EQ(ids.AllocID(), model.empty() ? 0 : model.front()) << "step " << step;
                if (!model.empty()) {
                    model.pop_front();
                }
            }
            ASSERT_EQ(ids.GetAvaiableIDCount(), model.size());
        }
    }
}

}  // namespace
