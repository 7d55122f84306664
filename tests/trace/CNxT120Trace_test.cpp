#include <fcntl.h>
#include <nx/trace/CNxT120Trace.h>
#include <nx/trace/CNxT120TraceFile.h>
#include <nx/trace/CNxT120TraceFileMgr.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <map>
#include <thread>

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
        m_pid = std::to_string(std::atol(output.c_str() + output.find("pid=") + 4));
        return output;
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
        const time_t now = time(nullptr);
        tm local{};
        char date[32];
        strftime(date, sizeof(date), "_%m%d%Y_", localtime_r(&now, &local));
        return "x_" + kind + date + std::to_string(number) + "." + m_pid + ".log";
    }

    Texts FirstInfoTexts() { return AllLogs()[Name("info")]; }

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

TEST_F(CNxT120TraceTest, FlushesInBatchesFromTheFirstRefreshOn) {
    const std::map<std::string, size_t> onDisk = {{"1", 15}, {"7", 14}, {"0", 15}, {"-3", 15}};
    for (const auto& [lines, expected] : onDisk) {
        Configure("FlushPerLines=" + lines + "\n");
        // 10 lines by level, 5 more; the program ends without a flush.
        Run("levels 5");
        EXPECT_EQ(FirstInfoTexts().size(), expected) << lines;
    }
}

TEST_F(CNxT120TraceTest, AFullFileIsFollowedByTheNextNumber) {
    Configure("x=1025\n");
    Run("lines 100");
    Logs logs = AllLogs();
    EXPECT_GT(logs.size(), 4u);
    size_t next = 0;
    for (int n = 0; n < static_cast<int>(logs.size()); ++n) {
        for (const std::string& text : logs[Name("info", n)]) {
            EXPECT_EQ(text, "Info:line " + std::to_string(next++));
        }
    }
    EXPECT_EQ(next, 100u);
}

TEST_F(CNxT120TraceTest, ARefreshOpensWhatCouldNotBeOpenedBefore) {
    Configure("");
    fs::create_symlink("nowhere", m_folder.Path("logs"));
    Run("repair");
    EXPECT_EQ(AllLogs().size(), 1u);
    EXPECT_EQ(AllLogs().begin()->second,
              (Texts{"Warning:3 records lost", "Info:kept 0", "Info:kept 1", "Info:kept 2"}));
}

TEST_F(CNxT120TraceTest, GoesOnWithTheOldSettingsAndTellsWhatWasLost) {
    Configure("x=1025\n");
    Run("starve");
    Texts all;
    Logs logs = AllLogs();
    for (int n = 0; n < static_cast<int>(logs.size()); ++n) {
        const Texts& texts = logs[Name("info", n)];
        all.insert(all.end(), texts.begin(), texts.end());
    }
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

TEST_F(CNxT120TraceTest, PassesOverWhatIsPlantedAndMakesItsFilesAsTheSettingsSay) {
    Configure("FileMode=0640\n");
    const std::string victim = m_folder.Put("victim", "secret");
    const std::string number0 = m_folder.Path("logs/x_info_$(date +%m%d%Y)_0.$$.log");
    const std::string plant = "mkdir -m 777 logs; ln -s ../victim " + number0;
    const std::string output = OutputOf("cd " + m_folder.Path() + "; sh -c 'umask 077; " + plant +
                                        "; echo pid=$$; exec " + m_program + " quiet 3 2>&1'");
    EXPECT_NE(output.find("nxbase: cannot trace to " + m_folder.Path("logs//x_info_")),
              std::string::npos)
        << output;
    EXPECT_EQ(m_folder.Get("victim"), "secret");
    m_pid = std::to_string(std::atol(output.c_str() + output.find("pid=") + 4));
    fs::remove(m_folder.Path("logs/" + Name("info")));
    EXPECT_EQ(AllLogs(), (Logs{{Name("info", 1), {"Info:line 0", "Info:line 1", "Info:line 2"}}}));
    const auto modeOf = [this](const std::string& name) {
        return static_cast<int>(fs::status(m_folder.Path("logs/" + name)).permissions());
    };
    EXPECT_EQ(modeOf(Name("info", 1)), 0640);
    fs::remove_all(m_folder.Path("logs"));
    Run("lines 3", "umask 077;");
    EXPECT_EQ(modeOf(""), 0755);
}

TEST_F(CNxT120TraceTest, KeepsAsManyFilesAndDaysAsTheSettingsSay) {
    Configure("x=1025\nx.Error=TRUE\nKeepFiles=3\nKeepDays=2\n");
    fs::create_directory(m_folder.Path("logs"));
    const auto put = [this](const std::string& name, int daysOld) {
        const std::string path = m_folder.Put("logs/" + name, HeaderOf(HEADER_SIZE));
        fs::last_write_time(
            path, fs::file_time_type::clock::now() - std::chrono::hours(24 * daysOld + 1));
        return path;
    };
    put("x_error_01012026_0.1.log", 1);
    put("x_error_01012026_1.1.log", 2);
    const Texts others = {"x_info_01012026_0.1.log.gz", "x_info_info_01012026_0.1.log",
                          "x_2_info_01012026_0.1.log", "x_info_01012026_x.1.log"};
    for (const std::string& other : others) {
        put(other, 9);
    }
    put("x_info_01012026_0.1.log", 0);
    const CNxT120TraceFile open(put("x_info_01012026_0.2.log", 9).c_str(), 0, 0, 1);
    fs::last_write_time(m_folder.Path("logs/x_info_01012026_0.2.log"),
                        fs::file_time_type::clock::now() - std::chrono::hours(240));
    Run("lines 100");
    Logs logs = AllLogs();
    const auto takeAway = [&](const std::string& name) { return logs.erase(name) == 1; };
    EXPECT_TRUE(std::all_of(others.begin(), others.end(), takeAway));
    EXPECT_TRUE(takeAway("x_error_01012026_0.1.log"));
    EXPECT_TRUE(takeAway(Name("error")));
    EXPECT_TRUE(takeAway("x_info_01012026_0.2.log")) << "another process's current file";
    ASSERT_EQ(logs.size(), 3U);
    Texts last;
    for (const auto& log : logs) {
        last = std::max(last, log.second);
    }
    EXPECT_EQ(last.empty() ? "" : last.back(), "Info:line 99");
}

TEST_F(CNxT120TraceTest, RefreshingWhileThreadsTraceLosesAndTearsNothing) {
    Configure("x=2000000000\nFlushPerLines=7\n");
    Run(getenv("NX_TRACE_FULL") != nullptr ? "refresh 4 1000" : "refresh 4 30");
    std::map<std::string, long> next;
    int ended = 0;
    const Texts texts = FirstInfoTexts();
    for (const std::string& text : texts) {
        const std::string thread = text.substr(0, text.find(' '));
        if (text == thread + " end") {
            ++ended;
        } else {
            ASSERT_EQ(text, thread + " " + std::to_string(next[thread]++));
        }
    }
    EXPECT_EQ(ended, 4);
    std::printf("%zu lines, none lost\n", texts.size());
}

TEST_F(CNxT120TraceTest, AReaderOfStdoutThatHasGoneOrStallsHoldsNobodyUp) {
    Configure("stdout=TRUE\n");
    // The status of the program, not of the reader; a stalled one reads nothing until the end.
    const std::string status = m_folder.Path("status");
    for (const std::string& reader :
         {std::string("true"), "while [ ! -s " + status + " ]; do sleep 0.05; done"}) {
        std::remove(status.c_str());
        OutputOf("(sleep 0.2; timeout 20 " + m_program + " quiet 3000; echo $? > " + status +
                 ") | (" + reader + ")");
        EXPECT_EQ(m_folder.Get("status"), "0\n") << reader;
    }
}

TEST_F(CNxT120TraceTest, PrintsIntoNoneOfItsOwnDescriptorsWhenStdoutIsClosed) {
    Configure("stdout=TRUE\n");
    OutputOf("bash -c '" + m_program + " quiet 3 >&-'");
    for (const auto& [name, texts] : AllLogs()) {
        EXPECT_EQ(texts, (Texts{"Info:line 0", "Info:line 1", "Info:line 2"})) << name;
    }
}

class CNxT120TraceClockTest : public CNxT120TraceTest {
protected:
    void SetUp() override {
        if (!fs::exists(c_faketime)) {
            GTEST_SKIP() << "Debian's faketime is not installed";
        }
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
        GTEST_SKIP() << "faketime does not go with sanitizers";
#endif
        Configure("x.Warning=TRUE\n");
    }
    const std::string m_fake = std::string("LD_PRELOAD=") + c_faketime + " FAKETIME_NO_CACHE=1 ";
};

TEST_F(CNxT120TraceClockTest, MidnightOpensFilesWithNumber0) {
    const std::string output = Run("midnight", m_fake + "FAKETIME='@2026-03-31 23:59:59 x5'");
    Logs logs = AllLogs();
    ASSERT_EQ(logs.size(), 4u);
    const std::string end = "_0." + m_pid + ".log";
    EXPECT_TRUE(logs["x_warning_03312026" + end].empty());
    EXPECT_EQ(logs["x_warning_04012026" + end].size(), 1u);
    Texts all = logs["x_info_03312026" + end];
    const Texts& second = logs["x_info_04012026" + end];
    EXPECT_FALSE(all.empty() || second.empty());
    all.insert(all.end(), second.begin(), second.end());
    EXPECT_NE(output.find("lines=" + std::to_string(all.size()) + "\n"), std::string::npos);
    for (size_t i = 0; i + 1 < all.size(); ++i) {
        EXPECT_EQ(all[i], "Info:line " + std::to_string(i));
    }
}

TEST_F(CNxT120TraceClockTest, ALeapOfTheClockLosesNothing) {
    Run("leap", m_fake + "FAKETIME=+0");
    size_t count = 0;
    for (const auto& log : AllLogs()) {
        count += log.second.size();
    }
    EXPECT_EQ(count, 600u);
}

// A record of trace_program's shared command: what it says of its length holds.
bool IsWholeText(const std::string& text) {
    size_t length = 0;
    int at = 0;
    return text == "end" || (sscanf(text.c_str(), "Info:%zu %n", &length, &at) == 1 &&
                             text.substr(static_cast<size_t>(at)) == std::string(length, 'x'));
}

// Every line after the marker is whole, but for what the wrap or a killed writer cut: the lines
// up to the first whole one. Returns the number of records.
size_t CheckShared(const std::string& bytes) {
    const Texts newer = TextsOf(bytes);
    EXPECT_TRUE(std::all_of(newer.begin(), newer.end(), IsWholeText));
    std::istringstream rest(bytes.substr(std::strtoul(bytes.c_str(), nullptr, 10) + MARKER.size()));
    size_t older = 0;
    for (std::string line; std::getline(rest, line);) {
        const bool isWhole = IsRecord(line) && IsWholeText(line.substr(line.find("] ") + 2));
        EXPECT_TRUE(isWhole || older == 0 || line + "\n\n" == MARKER || line.empty()) << line;
        older += isWhole ? 1 : 0;
    }
    return newer.size() + older;
}

TEST_F(CNxT120TraceTest, KilledWritersLeaveASharedFileUsable) {
    const int rounds = getenv("NX_TRACE_FULL") != nullptr ? 100 : 10;
    const std::string path = m_folder.Path("shared.log");
    const auto start = [&] {
        const pid_t pid = fork();
        if (pid == 0) {
            execl(m_program.c_str(), "x", "shared", path.c_str(), "65536", "4", nullptr);
            _exit(127);
        }
        return pid;
    };
    const auto kill9 = [](pid_t pid) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    };
    pid_t writers[] = {start(), start()};
    // Once full it keeps its size.
    while (!std::filesystem::exists(path) || std::filesystem::file_size(path) < 65536) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    size_t fewest = ~size_t{0};
    for (int i = 0; i < rounds; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        kill9(writers[i % 2]);
        CNxT120TraceFileMgr files;
        files.write(files.attach(path.c_str(), 65536), nullptr, nullptr, "end");
        struct flock lock {};
        lock.l_type = F_RDLCK;
        const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        ASSERT_EQ(fcntl(fd, F_SETLKW, &lock), 0);
        const std::string bytes = ReadWhole(path);
        close(fd);
        fewest = std::min(fewest, CheckShared(bytes));
        writers[i % 2] = start();
    }
    for (const pid_t writer : writers) {
        kill9(writer);
    }
    EXPECT_GT(fewest, 100u);
    std::printf("%d kills, at least %zu records each time\n", rounds, fewest);
}

}  // namespace
