#include "TraceFiles.h"

#include <fcntl.h>
#include <nx/trace/CNxT120Trace.h>
#include <nx/trace/CNxT120TraceFileMgr.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <map>
#include <thread>

extern char** environ;

namespace {

namespace fs = std::filesystem;

constexpr char c_faketime[] = "/usr/lib/x86_64-linux-gnu/faketime/libfaketime.so.1";

// An installed program: HOME/bin/x with HOME/conf/x.cfg and HOME/logs.
class CNxT120TraceTest : public CScratchFolder {
protected:
    CNxT120TraceTest() {
        fs::create_directory(m_folder + "/bin");
        fs::create_directory(m_folder + "/conf");
        fs::copy_file(TRACE_PROGRAM, m_program);
    }

    void Configure(const std::string& keys) {
        std::ofstream(m_folder + "/conf/x.cfg") << "[Trace]\n" << keys;
    }

    // Its standard output; it must end with 0.
    std::string Run(const std::string& arguments, const std::string& before = "") {
        FILE* const pipe = popen((before + " " + m_program + " " + arguments).c_str(), "r");
        std::string output;
        for (char part[4096]; const size_t n = fread(part, 1, sizeof(part), pipe);) {
            output.append(part, n);
        }
        EXPECT_EQ(pclose(pipe), 0) << output;
        m_pid = output.substr(output.find("pid=") + 4);
        m_pid.erase(m_pid.find('\n'));
        return output;
    }

    // The names in logs as KIND_DATE_NUMBER, with the texts in each.
    std::map<std::string, std::vector<std::string>> Logs() {
        std::map<std::string, std::vector<std::string>> logs;
        if (!fs::exists(m_folder + "/logs")) {
            return logs;
        }
        for (const auto& entry : fs::directory_iterator(m_folder + "/logs")) {
            const std::string name = entry.path().filename();
            char kind[32] = "";
            char pid[32] = "";
            EXPECT_EQ(sscanf(name.c_str(), "x_%31[a-z_0-9].%31[0-9].log", kind, pid), 2) << name;
            logs[(pid == m_pid ? "" : pid + std::string(" ")) + kind] =
                TextsOf(entry.path(), m_wasKilled);
        }
        return logs;
    }

    // Today's first file of a kind.
    std::string First(const std::string& kind) {
        const time_t now = time(nullptr);
        tm local{};
        char date[32];
        strftime(date, sizeof(date), "_%m%d%Y_0", localtime_r(&now, &local));
        return kind + date;
    }

    std::vector<std::string> FirstInfoTexts() { return Logs()[First("info")]; }

    size_t CountTexts() {
        size_t count = 0;
        for (const auto& log : Logs()) {
            count += log.second.size();
        }
        return count;
    }

    const std::string m_program = m_folder + "/bin/x";
    std::string m_pid;
    bool m_wasKilled = false;
};

using Texts = std::vector<std::string>;

TEST_F(CNxT120TraceTest, WritesFourFilesByLevel) {
    Configure(
        "Enable=TRUE;\nx.Info=TRUE\nx.Warning=TRUE\nx.Error=TRUE\nx.Fatal=TRUE\nx.PDU=TRUE\n"
        "x.Session=FALSE\nx.Detail=TRUE\n");
    const std::string output = Run("levels");
    const Texts info = {"Fatal:level 0",      "Error:level 1",    "Server:level 2",
                        "Warning:level 11",   "Meeting:level 12", "User:level 14",
                        "Statistic:level 15", "Info:level 21",    "State:level 22",
                        "PDU:level 23"};
    EXPECT_EQ(Logs(), (std::map<std::string, Texts>{{First("info"), info},
                                                    {First("warning"), {"Warning:level 11"}},
                                                    {First("error"), {"Error:level 1"}},
                                                    {First("fatal"), {"Fatal:level 0"}}}));
    EXPECT_NE(output.find("] Detail:always printed\n\n"), std::string::npos) << output;
    EXPECT_EQ(output.find("never"), std::string::npos);
    EXPECT_NE(output.find("name:x\ntrace_setting_init, g_strTracehome1=" + m_folder + "\n"),
              std::string::npos);
}

TEST_F(CNxT120TraceTest, WithoutAConfigurationOnlyFatalLinesArePrinted) {
    const std::string output = Run("levels");
    EXPECT_TRUE(Logs().empty());
    EXPECT_NE(output.find("Detail:always printed\n\n"), std::string::npos);
    EXPECT_EQ(output.find("level"), std::string::npos);
}

TEST_F(CNxT120TraceTest, FlushesInBatchesFromTheFirstRefreshOn) {
    const std::map<std::string, size_t> onDisk = {{"1", 15}, {"7", 14}, {"0", 15}, {"-3", 15}};
    for (const auto& [lines, expected] : onDisk) {
        Configure("Enable=TRUE\nx.Info=TRUE\nFlushPerLines=" + lines + "\n");
        // 10 lines by level, 5 more; the program ends without a flush.
        Run("levels 5");
        EXPECT_EQ(FirstInfoTexts().size(), expected) << lines;
    }
}

TEST_F(CNxT120TraceTest, AFullFileIsFollowedByTheNextNumber) {
    Configure("Enable=TRUE\nx.Info=TRUE\nx=1025\n");
    Run("lines 100");
    const auto logs = Logs();
    EXPECT_GT(logs.size(), 4u);
    size_t next = 0;
    for (size_t n = 0; n < logs.size(); ++n) {
        const std::string name = First("info");
        for (const std::string& text :
             logs.at(name.substr(0, name.size() - 1) + std::to_string(n))) {
            EXPECT_EQ(text, "Info:line " + std::to_string(next++));
        }
    }
    EXPECT_EQ(next, 100u);
    EXPECT_LT(fs::file_size(m_folder + "/logs/x_" + First("info") + "." + m_pid + ".log"), 1300u);
    // A size that is too small counts as the default.
    Configure("Enable=TRUE\nx.Info=TRUE\nx=1024\n");
    Run("lines 100");
    EXPECT_EQ(FirstInfoTexts().size(), 100u);
}

TEST_F(CNxT120TraceTest, AFixedNameTakesLinesOfAllLevelsAndStartsAnewWhenFull) {
    Configure("Enable=TRUE\nx.Info=TRUE\nx.Warning=TRUE\nx.Error=TRUE\nx.Fatal=TRUE\nfixed=2000\n");
    Run("fixed 0");
    const Texts kept = TextsOf(m_folder + "/logs/fixed." + m_pid);
    EXPECT_LT(kept.size(), 40u);
    // The line that finds the file full is the last one of the old file.
    EXPECT_TRUE(kept.empty() || kept.back() == "Info:99");
    Run("fixed 1");
    const Texts shared = TextsOf(m_folder + "/logs/\\fixed");
    EXPECT_EQ(shared.back(), "Info:99");
}

TEST_F(CNxT120TraceTest, RefreshingWhileThreadsTraceLosesAndTearsNothing) {
    Configure("Enable=TRUE\nx.Info=TRUE\nx=2000000000\nFlushPerLines=7\n");
    const std::string output =
        Run(getenv("NX_TRACE_FULL") != nullptr ? "refresh 4 1000" : "refresh 4 30");
    std::cout << output;
    std::map<std::string, long> next;
    for (const std::string& text : FirstInfoTexts()) {
        const std::string thread = text.substr(0, text.find(' '));
        ASSERT_EQ(text, thread + " " + std::to_string(next[thread]++));
    }
    EXPECT_EQ(next.size(), 4u);
    for (const auto& [thread, lines] : next) {
        const std::string report =
            "thread " + thread.substr(5) + " traced " + std::to_string(lines);
        EXPECT_NE(output.find(report + " lines\n"), std::string::npos) << report;
    }
}

TEST_F(CNxT120TraceTest, ExitsWhileThreadsTrace) {
    m_wasKilled = true;
    Configure("Enable=TRUE\nx.Info=TRUE\nx=2000000000\nFlushPerLines=50\n");
    for (int i = 0; i < 5; ++i) {
        Run("exit");
        size_t main = 0;
        for (const std::string& text : FirstInfoTexts()) {
            main += text.compare(0, 9, "Info:main") == 0 ? 1 : 0;
        }
        EXPECT_EQ(main, 1000u);
    }
}

TEST_F(CNxT120TraceTest, AForkedChildWritesFilesOfItsOwn) {
    Configure("Enable=TRUE\nx.Info=TRUE\nFlushPerLines=50\n");
    Run("fork");
    const auto logs = Logs();
    ASSERT_EQ(logs.size(), 21u);
    for (const auto& [name, texts] : logs) {
        const size_t pidEnd = name.find(' ');
        if (pidEnd == std::string::npos) {
            EXPECT_EQ(texts.size(), 3000u);
        } else {
            EXPECT_EQ(texts, Texts{"Info:child " + name.substr(0, pidEnd)});
        }
    }
}

TEST_F(CNxT120TraceTest, ACancelledThreadLeavesNothingLocked) {
    Configure("Enable=TRUE\nx.Info=TRUE\n");
    Run("cancel");
    EXPECT_EQ(FirstInfoTexts().back(), "Info:alive");
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
        Configure("Enable=TRUE\nx.Info=TRUE\nx.Warning=TRUE\n");
    }
    const std::string m_fake = std::string("LD_PRELOAD=") + c_faketime + " FAKETIME_NO_CACHE=1 ";
};

TEST_F(CNxT120TraceClockTest, MidnightOpensFilesWithNumber0) {
    const std::string output = Run("midnight", m_fake + "FAKETIME='@2026-03-31 23:59:59 x5'");
    std::cout << output;
    auto logs = Logs();
    ASSERT_EQ(logs.size(), 4u);
    EXPECT_TRUE(logs["warning_03312026_0"].empty());
    EXPECT_EQ(logs["warning_04012026_0"].size(), 1u);
    Texts all = logs["info_03312026_0"];
    const Texts& second = logs["info_04012026_0"];
    EXPECT_FALSE(all.empty());
    EXPECT_FALSE(second.empty());
    all.insert(all.end(), second.begin(), second.end());
    EXPECT_NE(output.find("lines=" + std::to_string(all.size()) + "\n"), std::string::npos);
    for (size_t i = 0; i + 1 < all.size(); ++i) {
        EXPECT_EQ(all[i], "Info:line " + std::to_string(i));
    }
}

TEST_F(CNxT120TraceClockTest, ALeapOfTheClockLosesNothing) {
    Run("leap", m_fake + "FAKETIME=+0");
    EXPECT_EQ(CountTexts(), 600u);
}

// A record of trace_program's shared command: what it says of its length holds.
bool IsWholeText(const std::string& text) {
    if (text == "end") {
        return true;
    }
    unsigned int thread = 0;
    unsigned int n = 0;
    size_t length = 0;
    int at = 0;
    return sscanf(text.c_str(), "Info:%u n=%u len=%zu %n", &thread, &n, &length, &at) == 3 &&
           text.substr(static_cast<size_t>(at)) == std::string(length, 'x');
}

// Every line behind the marker is whole, but for what the wrap or a killed writer cut: the lines
// up to the first whole one. Answers the number of records.
size_t CheckShared(const std::string& path) {
    const Texts newer = TextsOf(path);
    for (const std::string& text : newer) {
        EXPECT_TRUE(IsWholeText(text)) << text;
    }
    const std::string bytes = ReadWhole(path);
    std::istringstream behind(
        bytes.substr(std::strtoul(bytes.c_str(), nullptr, 10) + MARKER.size()));
    size_t older = 0;
    for (std::string line; std::getline(behind, line);) {
        const bool isWhole = IsRecord(line) && IsWholeText(line.substr(line.find("] ") + 2));
        EXPECT_TRUE(isWhole || older == 0 || line + "\n\n" == MARKER || line.empty()) << line;
        older += isWhole ? 1 : 0;
    }
    return newer.size() + older;
}

TEST_F(CNxT120TraceTest, KilledWritersLeaveASharedFileUsable) {
    const int rounds = getenv("NX_TRACE_FULL") != nullptr ? 100 : 10;
    const std::string path = m_folder + "/shared.log";
    const auto start = [&] {
        std::string arguments[] = {m_program, "shared", path, "65536", "4"};
        char* argv[] = {&arguments[0][0], &arguments[1][0], &arguments[2][0],
                        &arguments[3][0], &arguments[4][0], nullptr};
        pid_t pid = 0;
        EXPECT_EQ(posix_spawn(&pid, m_program.c_str(), nullptr, nullptr, argv, environ), 0);
        return pid;
    };
    const auto kill9 = [](pid_t pid) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    };
    pid_t writers[] = {start(), start()};
    size_t fewest = ~size_t{0};
    for (int i = 0; i < rounds; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        kill9(writers[i % 2]);
        {
            CNxT120TraceFileMgr files;
            files.write(files.attach(path.c_str(), 65536), nullptr, nullptr, "end");
        }
        struct flock lock {};
        lock.l_type = F_RDLCK;
        const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        ASSERT_EQ(fcntl(fd, F_SETLKW, &lock), 0);
        const std::string copy = m_folder + "/copy.log";
        std::ofstream(copy, std::ios::binary) << ReadWhole(path);
        close(fd);
        fewest = std::min(fewest, CheckShared(copy));
        writers[i % 2] = start();
    }
    for (const pid_t writer : writers) {
        kill9(writer);
    }
    EXPECT_GT(fewest, 100u);
    std::printf("%d kills, at least %zu records each time\n", rounds, fewest);
}

}  // namespace
