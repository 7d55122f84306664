#include <gtest/gtest.h>
#include <nx/trace/log.h>

#include <algorithm>
#include <cstring>
#include <string>

namespace {

TEST(LogTest, CutsAFormatBeforeTheConversionThatDoesNotFit) {
    for (size_t fills = 998; fills < 1018; ++fills) {
        testing::internal::CaptureStdout();
        do_log2(CNX_LOG_ERROR, (std::string(fills, 'f') + "%-20.3dtail").c_str(), 5);
        const std::string out = testing::internal::GetCapturedStdout();
        EXPECT_LE(out.size(), 1024u);
        const std::string kept(std::min<size_t>(fills, 1016), 'f');
        EXPECT_EQ(out.substr(0, 7 + kept.size()), "error: " + kept);
        if (7 + fills + std::strlen("%-20.3d") > 1023) {
            EXPECT_EQ(out.find_first_not_of('f', 7), out.size() - 1) << fills;
        }
    }
}

}  // namespace
