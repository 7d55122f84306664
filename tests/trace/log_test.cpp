#include <gtest/gtest.h>
#include <nx/trace/log.h>

#include <algorithm>
#include <string>

namespace {

TEST(LogTest, CutsAFormatBeforeTheConversionThatDoesNotFit) {
    for (size_t fills = 998; fills < 1018; ++fills) {
        for (const std::string conversion : {"%d", "%-20.3d", "%%", "%08d"}) {
            const std::string format = std::string(fills, 'f') + conversion + "tail";
            testing::internal::CaptureStdout();
            do_log2(CNX_LOG_ERROR, format.c_str(), 5);
            const std::string out = testing::internal::GetCapturedStdout();
            EXPECT_LE(out.size(), 1024u);
            const std::string kept(std::min<size_t>(fills, 1016), 'f');
            EXPECT_EQ(out.substr(0, 7 + kept.size()), "error: " + kept);
            if (7 + fills + conversion.size() > 1023) {
                EXPECT_EQ(out.find_first_not_of('f', 7), out.size() - 1) << fills << conversion;
            }
        }
    }
}

}  // namespace
