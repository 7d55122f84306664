#include <fcntl.h>
#include <nx/trace/CNxT120Trace.h>
#include <nx/trace/CNxT120TraceFile.h>
#include <nx/trace/CNxT120TraceFileMgr.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <thread>

#include "../process/Children.h"
#include "TraceFiles.h"

namespace {

namespace fs = std::filesystem;

constexpr char c_faketime[] = "/usr/lib/x86_64-linux-gnu/faketime/libfaketime.so.1";

// The files by their names.
using Logs = std::map<std::string, Texts>;

// An installed program: HOME/bin/x with HOME/conf/x.cfg and HOME/logs.
class CNxT120TraceTest : public testing::Test {
protected:
    CNxT120TraceTest() {
        fs::create_directory(m_folder.Path("bin"));
        fs::create_directory(m_folder.Path("conf"));
        fs::copy_file(TRACE_PROGRAM, m_program);
    }

    void Configure(const std::string& keys) {
        m_folder.Put("conf/x.cfg", "[Trace]\nEnable=TRUE\nx.Info=TRUE\n" + keys);
    }

    // Its standard output; it must end with 0.
    std::string Run(const std::string& arguments, const std::string& before = "") {
        int status = -1;
        const std::string output = OutputOf(before + " " + m_program + " " + arguments, &status);
        EXPECT_EQ(status, 0) << output;
        m_pid = PidIn(output);
        return output;
    }

    static std::string PidIn(const std::string& output) {
        return std::to_string(std::atol(output.c_str() + output.find("pid=") + 4));
    }

    Logs AllLogs() {
        Logs logs;
        for (const auto& entry : fs::directory_iterator(m_folder.Path("logs"))) {
            logs[entry.path().filename()] = TextsIn(entry.path());
        }
        return logs;
    }

    // Today's file of a kind.
    std::string Name(const std::string& kind, int number = 0) {
        const std::string date = OutputOf("date +_%m%d%Y_ | tr -d '\\n'");
        return "x_" + kind + date + std::to_string(number) + "." + m_pid + ".log";
    }

    // Of all info files in the order of their numbers.
    Texts InfoTexts() {
        Logs logs = AllLogs();
        Texts all;
        for (int n = 0; logs.count(Name("info", n)) != 0; ++n) {
            const Texts& texts = logs[Name("info", n)];
            all.insert(all.end(), texts.begin(), texts.end());
        }
        return all;
    }

    const CTempFolder m_folder;
    const std::string m_program = m_folder.Path("bin/x");
    std::string m_pid;
};

TEST_F(CNxT120TraceTest, WritesFourFilesByLevel) {
    Configure("x.Warning=TRUE\nx.Error=TRUE\nx.Fatal=TRUE\nx.PDU=TRUE;\nx.Session=FALSE\n");
    const std::string output = Run("levels");
    const Texts info = {"Fatal:level 0",      "Error:level 1",    "Server:level 2",
                        "Warning:level 11",   "Meeting:level 12", "User:level 14",
                        "Statistic:level 15", "Info:level 21",    "State:level 22",
                        "PDU:level 23"};
    EXPECT_EQ(AllLogs(), (Logs{{Name("info"), info},
                               {Name("warning"), {"Warning:level 11"}},
                               {Name("error"), {"Error:level 1"}},
                               {Name("fatal"), {"Fatal:level 0"}}}));
    EXPECT_NE(output.find("] Detail:always printed\n\n"), std::string::npos) << output;
}

TEST_F(CNxT120TraceTest, GoesOnWithTheOldSettingsAndTellsWhatWasLost) {
    Configure("x=1025\n");
    Run("starve");
    const Texts all = InfoTexts();
    const auto count = [&](const std::string& start) {
        return std::count_if(all.begin(), all.end(), [&](const std::string& text) {
            return text.compare(0, start.size(), start) == 0;
        });
    };
    EXPECT_EQ(count("Info:before"), 1);
    EXPECT_EQ(count("Info:missing"), 50);
    const auto lost = 50 - count("Info:starving");
    EXPECT_GT(lost, 0);
    EXPECT_EQ(count("Warning:" + std::to_string(lost) + " records lost"), 1);
    EXPECT_EQ(count("Info:after"), 50);
}

TEST_F(CNxT120TraceTest, KernelsThreadIdsAreThoseOfThreadsAndOfAForkedChild) {
    Configure("stdout=TRUE\nKernelThreadId=TRUE\n");
    const std::string output = OutputOf(m_program + " ids");
    EXPECT_EQ(OutputOf("echo '" + output + "' | grep -c ' tid=\\([0-9]*\\)] Info:id \\1$'"), "3\n")
        << output;
}

TEST_F(CNxT120TraceTest, TheLibrarysOwnLinesGoWhereTheProcessSays) {
    Configure("");
    const std::string lines = OutputOf(m_program + " quiet 2>/dev/null");
    EXPECT_EQ(OutputOf("OWN_LINES=1 " + m_program + " quiet 2>&1 >/dev/null"), lines);
    EXPECT_EQ(OutputOf("OWN_LINES=3 " + m_program + " quiet 2>&1"), "");
    fs::remove_all(m_folder.Path("logs"));
    EXPECT_EQ(OutputOf("OWN_LINES=2 " + m_program + " quiet 2>&1"), "");
    std::string traced;
    for (const std::string& text : TextsIn(fs::directory_iterator(m_folder.Path("logs"))->path())) {
        traced += text.substr(std::strlen("Info:")) + "\n";
    }
    EXPECT_EQ(traced, lines);
}

TEST_F(CNxT120TraceTest, TellsOnceOfALogOrConfigurationThatCannotBeOpened) {
    Configure("x.Error=TRUE\n");
    const std::string logs = m_folder.Put("logs", "no folder");
    const std::string run = m_program + " quiet 3 2>&1 >/dev/null";
    const std::string said = "nxbase: cannot trace to " + logs + "//x_";
    EXPECT_EQ(OutputOf(run + " | sed 's/_[0-9].*log//'"),
              said + "info: Not a directory\n" + said + "error: Not a directory\n");
    const std::string config = m_folder.Path("conf/x.cfg");
    fs::remove(config);
    fs::create_directory(config);
    EXPECT_EQ(OutputOf(run), "nxbase: cannot read " + config + ": not a regular file\n");
}

TEST_F(CNxT120TraceTest, PassesOverWhatIsPlantedAndMakesItsFilesAsTheSettingsSay) {
    Configure("FileMode=0640\n");
    const std::string number0 = m_folder.Path("logs/x_info_$(date +%m%d%Y)_0.$$.log");
    const std::string output =
        OutputOf("sh -c 'umask 077; mkdir -m 777 " + m_folder.Path("logs") + "; ln -s ../victim " +
                 number0 + "; echo pid=$$; exec " + m_program + " quiet 3 2>/dev/null'");
    m_pid = PidIn(output);
    EXPECT_FALSE(fs::exists(m_folder.Path("victim")));
    fs::remove(m_folder.Path("logs/" + Name("info")));
    EXPECT_EQ(AllLogs(), (Logs{{Name("info", 1), {"Info:line 0", "Info:line 1", "Info:line 2"}}}));
    const fs::path logs = m_folder.Path("logs");
    EXPECT_EQ(static_cast<int>(fs::status(logs / Name("info", 1)).permissions()), 0640);
    fs::remove_all(logs);
    Run("lines 3", "umask 077;");
    EXPECT_EQ(static_cast<int>(fs::status(logs).permissions()), 0755);
}

TEST_F(CNxT120TraceTest, KeepsAsManyFilesAndDaysAsTheSettingsSay) {
    Configure("x=1025\nx.Error=TRUE\nKeepFiles=3\nKeepDays=2\n");
    fs::create_directory(m_folder.Path("logs"));
    const std::string open = "x_info_01012026_0.2.log";
    const CNxT120TraceFile otherProcess(m_folder.Path("logs/" + open).c_str(), 0, 0, 1);
    const std::map<std::string, int> daysOld = {
        {"x_error_01012026_0.1.log", 1},     {"x_error_01012026_1.1.log", 2},
        {"x_info_01012026_0.1.log.gz", 9},   {"x_info_01012026_0.1.log", 0},
        {"x_info_info_01012026_0.1.log", 9}, {open, 9},
        {"x_2_info_01012026_0.1.log", 9},    {"x_info_01012026_x.1.log", 9}};
    for (const auto& [name, days] : daysOld) {
        const std::string path = m_folder.Put("logs/" + name, HeaderOf(HEADER_SIZE));
        const auto age = std::chrono::hours(24 * days + 1);
        fs::last_write_time(path, fs::file_time_type::clock::now() - age);
    }
    Run("lines 100");
    Logs logs = AllLogs();
    Texts removed;
    for (const auto& [name, days] : daysOld) {
        if (logs.erase(name) == 0) {
            removed.push_back(name);
        }
    }
    EXPECT_EQ(removed, (Texts{"x_error_01012026_1.1.log", "x_info_01012026_0.1.log"}));
    EXPECT_EQ(logs.erase(Name("error")), 1U);
    ASSERT_EQ(logs.size(), 3U);
    const auto hasLast = [](const auto& log) { return log.second.back() == "Info:line 99"; };
    EXPECT_TRUE(std::any_of(logs.begin(), logs.end(), hasLast));
}

TEST_F(CNxT120TraceTest, RefreshingWhileThreadsTraceLosesAndTearsNothing) {
    Configure("x=2000000000\nFlushPerLines=7\n");
    const long lines = getenv("NX_TRACE_FULL") != nullptr ? 200000 : 5000;
    Run("refresh 4 " + std::to_string(lines));
    std::map<std::string, long> next;
    for (const std::string& text : InfoTexts()) {
        const std::string thread = text.substr(0, text.find(' '));
        ASSERT_EQ(text, thread + " " + std::to_string(next[thread]++));
    }
    EXPECT_EQ(next,
              (std::map<std::string, long>{
                  {"Info:0", lines}, {"Info:1", lines}, {"Info:2", lines}, {"Info:3", lines}}));
}

TEST_F(CNxT120TraceTest, PrintsIntoNoneOfItsOwnDescriptorsWhenStdoutIsClosed) {
    Configure("stdout=TRUE\n");
    OutputOf("bash -c '" + m_program + " quiet 3 >&-'");
    EXPECT_EQ(AllLogs().begin()->second, (Texts{"Info:line 0", "Info:line 1", "Info:line 2"}));
}

TEST_F(CNxT120TraceTest, AnotherDayOpensFilesWithNumber0AndALeapOfTheClockLosesNothing) {
    if (!fs::exists(c_faketime)) {
        GTEST_SKIP() << "Debian's faketime is not installed";
    }
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "faketime does not go with sanitizers";
#endif
    Configure("");
    Run("leap",
        std::string("FAKETIME_NO_CACHE=1 FAKETIME='2026-05-01 12:00:00' LD_PRELOAD=") + c_faketime);
    // The line that meets the new day still goes where the others went.
    const std::string end = "." + m_pid + ".log";
    EXPECT_EQ(AllLogs(), (Logs{{"x_info_05012026_0" + end, {"Info:01 0", "Info:01 1", "Info:02 0"}},
                               {"x_info_05022026_0" + end, {"Info:02 1", "Info:01 0"}},
                               {"x_info_05012026_1" + end, {"Info:01 1"}}}));
}

// Three threads write until they are killed: records that say how long they are.
int WriteShared(const std::string& path) {
    void* const file = g_trace_mgr.attach(path.c_str(), 65536);
    const auto work = [file] {
        for (size_t n = 0;; n = (n + 37) % 300) {
            const std::string text = std::to_string(n) + " " + std::string(n, 'x');
            g_trace_mgr.write(file, "Log", "Info", text.c_str());
        }
    };
    std::thread(work).detach();
    std::thread(work).detach();
    work();
    return 0;
}

TEST(CNxT120TraceFileMgrTest, KilledWritersLeaveASharedFileUsable) {
    const int rounds = getenv("NX_TRACE_FULL") != nullptr ? 100 : 10;
    const CTempFolder folder;
    const std::string path = folder.Put("shared.log", "");
    size_t most = 0;
    for (int i = 0; i < rounds; ++i) {
        {
            const Child writers[] = {Child([&] { return WriteShared(path); }),
                                     Child([&] { return WriteShared(path); })};
            // Once full it keeps its size.
            do {
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
            } while (fs::file_size(path) < 65536);
        }
        // The next record mends what they were killed in.
        CNxT120TraceFileMgr files;
        files.write(files.attach(path.c_str(), 65536), nullptr, nullptr, "Info:0 ");
        const Texts texts = TextsIn(path);
        for (const std::string& text : texts) {
            const size_t length = std::strtoul(text.c_str() + std::strlen("Info:"), nullptr, 10);
            ASSERT_EQ(text, "Info:" + std::to_string(length) + " " + std::string(length, 'x'));
        }
        most = std::max(most, texts.size());
    }
    EXPECT_GT(most, 50u);
}

}  // namespace
