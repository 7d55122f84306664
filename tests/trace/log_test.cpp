#include <gtest/gtest.h>
#include <nx/trace/log.h>

#include <cerrno>
#include <string>

namespace {

template <class Work>
std::string Printed(Work work) {
    testing::internal::CaptureStdout();
    work();
    return testing::internal::GetCapturedStdout();
}

struct CLogTest : testing::Test {
    ~CLogTest() override { log_init(nullptr, CNX_LOG_INFO, 0), cnx_log_level = CNX_LOG_INFO; }
    char m_name[5] = "test";
};

TEST_F(CLogTest, PrintsWhatTheThresholdLetsThrough) {
    EXPECT_EQ(Printed([] { debug("no"); }), "");
    EXPECT_EQ(Printed([] { logit("bare %s", "text"); }), "bare text\n");
    EXPECT_EQ(Printed([] { error("x %d", 1); }), "error: x 1\n");
    EXPECT_EQ(Printed([] { logdie("lives"); }), "lives\n");
    log_init(m_name, CNX_LOG_DEBUG3, 0);
    const auto all = [] {
        errno = 7;
        do_log2(CNX_LOG_QUIET, "a");
        do_log2(CNX_LOG_FATAL, "b");
        verbose("c");
        debug("d");
        debug2("e");
        debug3("f");
        const char* const nothing = nullptr;
        do_log2(CNX_LOG_INFO, nothing);
    };
    EXPECT_EQ(Printed(all), "internal error: a\nfatal: b\nc\ndebug1: d\ndebug2: e\ndebug3: f\n");
    EXPECT_EQ(errno, 7);
}

TEST_F(CLogTest, CutsAFormatBeforeTheConversionThatDoesNotFit) {
    const std::string fill(1000, 'f');
    const char* const conversions[] = {"%d", "%-20.3d", "%%", "%08d"};
    for (size_t before = 1005; before < 1025; ++before) {
        for (const char* conversion : conversions) {
            const size_t fills = before - 7;
            const std::string format = std::string(fills, 'f') + conversion + "tail";
            const std::string out = Printed([&] { do_log2(CNX_LOG_ERROR, format.c_str(), 5); });
            EXPECT_LE(out.size(), 1024u);
            EXPECT_EQ(out.substr(0, 7 + std::min<size_t>(fills, 1016)),
                      "error: " + std::string(std::min<size_t>(fills, 1016), 'f'));
            if (before + std::string(conversion).size() > 1023) {
                EXPECT_EQ(out.find_first_not_of('f', 7), out.size() - 1) << before << conversion;
            }
        }
    }
    EXPECT_EQ(Printed([&] { logit("%s%s", fill.c_str(), fill.c_str()); }).size(), 1024u);
}

TEST_F(CLogTest, KnowsItsLevelsByNameAndNumber) {
    EXPECT_EQ(log_change_level(CNX_LOG_DEBUG), 0);
    EXPECT_EQ(get_log_level(), CNX_LOG_INFO);
    log_init(m_name, static_cast<CNxLogLevel>(8), 0);
    EXPECT_EQ(get_log_level(), CNX_LOG_INFO);
    EXPECT_EQ(log_change_level(static_cast<CNxLogLevel>(8)), -1);
    EXPECT_EQ(log_change_level(CNX_LOG_DEBUG), 0);
    EXPECT_EQ(get_log_level(), CNX_LOG_DEBUG);
    for (int level = 0; level < 8; ++level) {
        EXPECT_EQ(log_level_number(log_level_name(static_cast<CNxLogLevel>(level))), level);
    }
    EXPECT_EQ(log_level_name(static_cast<CNxLogLevel>(8)), nullptr);
    EXPECT_EQ(log_level_number("debug1"), 5);
    EXPECT_STREQ(log_level_name(CNX_LOG_DEBUG), "DEBUG");
    EXPECT_EQ(log_level_number("loud"), -1);
    EXPECT_EQ(log_level_number(nullptr), -1);
}

TEST_F(CLogTest, RedirectingOnlyStoresTheDescriptor) {
    EXPECT_TRUE(log_is_on_stderr());
    EXPECT_EQ(log_redirect_stderr_to("/dev/null"), cnx_log_stderr_fd);
    EXPECT_FALSE(log_is_on_stderr());
    cnx_log_stderr_fd = 2;
    EXPECT_EXIT(log_redirect_stderr_to("/nowhere/x"), testing::ExitedWithCode(1),
                "Couldn't open logfile /nowhere/x: No such file or directory");
    EXPECT_EXIT(sigdie("x"), testing::ExitedWithCode(1), "^$");
}

}  // namespace
