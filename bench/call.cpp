// Work that another thread does while the caller waits for it: the time of a call, both threads on
// one processor.
#include <type_traits>

#include "loops.h"

namespace bench {

void AddCall(std::vector<Case>& cases) {
    ForEachLoop([&](auto kind, const char* row) {
        using Loop = typename decltype(kind)::Type;
        if constexpr (std::is_base_of_v<NxLoop, Loop>) {
            cases.push_back(
                {"call", "synchronous call", row, 0,
                 [] { return MeasureCalls<Loop>([](Loop& loop, Job job) { loop.Call(job); }); }});
        } else {
            cases.push_back({"call", "synchronous call", row, 0, PostAndWait<Loop>});
        }
    });
}

}  // namespace bench
