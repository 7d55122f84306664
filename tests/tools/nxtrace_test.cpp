// The program: what it prints for which options, and how it follows files.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <nx/trace/CNxT120TraceFile.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>

#include "../support/TempFolder.h"
#include "TraceSamples.h"
#include "trace_filter.h"
#include "trace_name.h"
#include "trace_print.h"

namespace {

const std::string s_program = NXTRACE;

std::string Nxtrace(const std::string& arguments, int* status = nullptr) {
    return OutputOf(s_program + " " + arguments + " 2>&1", status);
}

// nxtrace -f as a process of its own, its lines taken one by one.
class CFollower {
public:
    explicit CFollower(const std::string& arguments) {
        int ends[2];
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        const std::string command = "exec " + s_program + " -f " + arguments;
        m_pid = fork();
        if (m_pid == 0) {
            dup2(ends[1], STDOUT_FILENO);
            execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
            _exit(127);
        }
        close(ends[1]);
        m_out = ends[0];
    }
    ~CFollower() {
        kill(m_pid, SIGTERM);
        waitpid(m_pid, nullptr, 0);
        close(m_out);
    }
    CFollower(const CFollower&) = delete;
    CFollower& operator=(const CFollower&) = delete;

    // The text of the next record; "" when none comes.
    std::string Next() {
        size_t end = 0;
        while ((end = m_unread.find('\n')) == std::string::npos) {
            pollfd waiting{m_out, POLLIN, 0};
            char bytes[4096];
            const ssize_t count =
                poll(&waiting, 1, 30'000) == 1 ? read(m_out, bytes, sizeof(bytes)) : 0;
            if (count <= 0) {
                return "";
            }
            m_unread.append(bytes, static_cast<size_t>(count));
        }
        CTraceRecord record;
        const std::string line = m_unread.substr(0, end);
        m_unread.erase(0, end + 1);
        return ParseRecord(line, record) ? std::string(record.m_text) : "";
    }

private:
    pid_t m_pid;
    int m_out;
    std::string m_unread;
};

class CNxtraceTest : public testing::Test {
protected:
    // The info file of a process with errors in a file of their own, and another process.
    void SetUp() override {
        m_folder.Put("srv_info_11212026_0.77.log",
                     FileOf(m_one + m_bad + RecordLine(62, "Warning:slow", 77, 9)));
        m_folder.Put("srv_error_11212026_0.77.log", FileOf(m_bad));
        m_folder.Put("srv_2_info_11212026_0.78.log", FileOf(RecordLine(2, "Info:other", 78)));
        m_folder.Put("srv_info.old", "not one of ours");
    }
    std::string Dir() const { return "--dir " + m_folder.Path() + " "; }

    CTempFolder m_folder;
    const std::string m_one = RecordLine(1, "Info:one");
    const std::string m_other = RecordLine(2, "Info:other", 78);
    const std::string m_bad = RecordLine(3, "Error:bad");
    const std::string m_slow = RecordLine(62, "Warning:slow", 77, 9);
};

}  // namespace

TEST_F(CNxtraceTest, MergesFilesByTimeAndShowsSecondCopiesOnce) {
    EXPECT_EQ(Nxtrace(Dir()), m_one + m_other + m_bad + m_slow);
    EXPECT_EQ(Nxtrace(Dir() + "--process srv"), m_one + m_bad + m_slow);
    EXPECT_EQ(Nxtrace("--process srv_2 --dir " + m_folder.Path()), m_other);
    const std::string file = m_folder.Path("srv_error_11212026_0.77.log");
    EXPECT_EQ(Nxtrace(file + " " + file), m_bad) << "the same file twice is one file";
    // The same text twice in one file is two records.
    m_folder.Put("srv_error_11212026_0.77.log", FileOf(m_bad + m_bad));
    EXPECT_EQ(Nxtrace(Dir() + "--process srv"), m_one + m_bad + m_bad + m_slow);
}

TEST_F(CNxtraceTest, KeepsTheOrderOfWritingWhenTheClockWasSetBack) {
    m_folder.Put("c_info_11212026_9.5.log", FileOf(RecordLine(50, "Info:a")));
    m_folder.Put("c_info_11212026_10.5.log", FileOf(RecordLine(20, "Info:b")));
    m_folder.Put("c_info_11202026_11.5.log", FileOf(RecordLine(60, "Info:0")));
    EXPECT_EQ(Nxtrace(Dir() + "--process c"),
              RecordLine(60, "Info:0") + RecordLine(50, "Info:a") + RecordLine(20, "Info:b"));
}

TEST_F(CNxtraceTest, FiltersRecords) {
    EXPECT_EQ(Nxtrace(Dir() + "--level error,WARNING"), m_bad + m_slow);
    EXPECT_EQ(Nxtrace(Dir() + "--pid 78"), m_other);
    EXPECT_EQ(Nxtrace(Dir() + "--tid 9,-5 --pid 77"), m_one + m_bad + m_slow);
    EXPECT_EQ(Nxtrace(Dir() + "--grep '^(Info|Error):.*[ed]$'"), m_one + m_bad);
    EXPECT_EQ(Nxtrace(Dir() + "--since '2026-11-21 09:00:03'"), m_bad + m_slow);
    EXPECT_EQ(Nxtrace(Dir() + "--until '11/21/2026 09:00:02.999'"), m_one + m_other);
    EXPECT_EQ(Nxtrace(Dir() + "-n 2"), m_bad + m_slow);
    EXPECT_EQ(Nxtrace(Dir() + "-n 0"), "");
    EXPECT_EQ(Nxtrace(Dir() + "-n 1 --level info"), m_other);
}

TEST(UserTime, UnderstandsTheFormsOfTheManual) {
    std::int64_t time = 0;
    std::int64_t later = 0;
    EXPECT_TRUE(ParseUserTime("2026-11-21T09:30:15.25", time));
    EXPECT_EQ(CalendarText(time), "2026-11-21T09:30:15.250");
    EXPECT_TRUE(ParseUserTime("12/31/2026", time));
    EXPECT_EQ(CalendarText(time), "2026-12-31T00:00:00.000");
    EXPECT_TRUE(ParseUserTime("09:30", time));
    EXPECT_TRUE(ParseUserTime("09:31:00", later));
    EXPECT_EQ(later - time, 60'000);
    EXPECT_TRUE(ParseUserTime("2d", time));
    EXPECT_TRUE(ParseUserTime("10s", later));
    EXPECT_LT(time, later);
    for (const char* const bad : {"", "m", "10", "10x", "-1m", "25:00", "09:30x", "2026-13-01",
                                  "09:30:15.", "99999999999999999999d"}) {
        EXPECT_FALSE(ParseUserTime(bad, time)) << bad;
    }
}

TEST_F(CNxtraceTest, PrintsJsonAndCounts) {
    m_folder.Put("j_info_11212026_0.1.log",
                 FileOf(RecordLine(1, "Info:\"a\\\n\x01\xff\xc3\xa9") + RecordLine(2, "no level")));
    EXPECT_EQ(Nxtrace(Dir() + "--process j --json"),
              "{\"time\":\"2026-11-21T09:00:01.000\",\"level\":\"Info\",\"pid\":77,\"tid\":-5,"
              "\"text\":\"\\\"a\\\\\\u000a\\u0001\\ufffd\xc3\xa9\"}\n"
              "{\"time\":\"2026-11-21T09:00:02.000\",\"level\":null,\"pid\":77,\"tid\":-5,"
              "\"text\":\"no level\"}\n");
    EXPECT_EQ(Nxtrace(Dir() + "--process srv --stat"),
              "minute              Error     Info  Warning      all\n"
              "2026-11-21 09:00        1        1        0        2\n"
              "2026-11-21 09:01        0        0        1        1\n"
              "all                     1        1        1        3\n");
}

TEST(PrintRecord, TerminalGetsColourButNoControlCharactersOfTheText) {
    char* text = nullptr;
    size_t size = 0;
    FILE* const out = open_memstream(&text, &size);
    CTraceRecord record;
    const std::string line = "[11/21/2026 09:00:00.000 pid=1 tid=2] Error:\033[2J\tx";
    ASSERT_TRUE(ParseRecord(line, record));
    PrintRecord(out, EOutput::TERMINAL, record);
    PrintRecord(out, EOutput::TERMINAL_WITHOUT_COLOUR, record);
    std::fclose(out);
    const std::string shown = "[11/21/2026 09:00:00.000 pid=1 tid=2] Error:\\x1b[2J\tx";
    EXPECT_EQ(text, "\033[31m" + shown + "\033[0m\n" + shown + "\n");
    free(text);
}

TEST_F(CNxtraceTest, RefusesWhatIsNoTraceFileAndGoesOn) {
    int status = 0;
    const std::string bad = m_folder.Path("srv_info.old");
    const std::string output =
        Nxtrace(bad + " " + m_folder.Path() + " /nowhere " + m_folder.Put("empty", "") + " " +
                    m_folder.Path("srv_2_info_11212026_0.78.log"),
                &status);
    EXPECT_EQ(status, 1);
    EXPECT_NE(output.find("nxtrace: " + bad + ": not a trace file\n"), std::string::npos);
    EXPECT_NE(output.find(": Is a directory\n"), std::string::npos);
    EXPECT_NE(output.find("/nowhere: No such file or directory\n"), std::string::npos);
    EXPECT_NE(output.find(m_other), std::string::npos);
    Nxtrace(Dir() + "--process nobody", &status);
    EXPECT_EQ(status, 1);
    for (const char* const wrong : {"", "--nothing", "-n x f", "--since x f", "--grep '(' f",
                                    "--pid x f", "--stat -f f", "--level '' f"}) {
        Nxtrace(wrong, &status);
        EXPECT_EQ(status, 2) << wrong;
    }
    EXPECT_NE(Nxtrace("--help", &status).find("--follow"), std::string::npos);
    EXPECT_EQ(status, 0);
    Nxtrace(Dir() + "> /dev/full", &status);
    EXPECT_EQ(status, 1);
}

TEST(Nxtrace, ShowsEachRecordOfAProcessOnceAcrossItsFourKindsOfFilesAndTheirNumbers) {
    const CTempFolder folder;
    std::filesystem::create_directory(folder.Path("bin"));
    std::filesystem::create_directory(folder.Path("conf"));
    std::filesystem::copy_file(TRACE_WRITER, folder.Path("bin/w"));
    folder.Put("conf/w.cfg",
               "[Trace]\nEnable=TRUE\nw.Info=TRUE\nw.Warning=TRUE\nw.Error=TRUE\nw.Fatal=TRUE\n"
               "w=2000\n");
    OutputOf(folder.Path("bin/w") + " 300");
    std::vector<std::string> files;
    FindTraceFiles(folder.Path("logs"), "w", files);
    EXPECT_GT(files.size(), 12U);

    const std::string shown = Nxtrace("--dir " + folder.Path("logs") + " --process w --json");
    constexpr const char* LEVELS[] = {"Info", "Warning", "Error", "Fatal"};
    size_t at = 0;
    for (int i = 0; i < 300; ++i) {
        const size_t end = shown.find('\n', at);
        ASSERT_NE(end, std::string::npos) << "after " << i << " records";
        const std::string line = shown.substr(at, end - at);
        EXPECT_NE(line.find(std::string("\"level\":\"") + LEVELS[i % 4] + "\""), std::string::npos)
            << line;
        EXPECT_NE(line.find("\"text\":\"" + std::to_string(i) + "\""), std::string::npos) << line;
        at = end + 1;
    }
    EXPECT_EQ(at, shown.size());
}

TEST_F(CNxtraceTest, FollowsGrowthWrapTheNextNumberMidnightAndNewProcesses) {
    const std::string name = "f_info_11212026_";
    const auto make = [&](const std::string& file, unsigned char shared = 0) {
        return std::make_unique<CNxT120TraceFile>(m_folder.Path(file).c_str(), 1000, shared, 1);
    };
    auto writer = make(name + "0.5.log", 1);
    writer->write("Log", "Info", "first");
    CFollower file("-n 1 " + m_folder.Path(name + "0.5.log"));
    CFollower folder(Dir() + "--process f");
    const auto expect = [&](const std::string& text) {
        EXPECT_EQ(file.Next(), text);
        EXPECT_EQ(folder.Next(), text);
    };
    expect("first");
    // Three records at a time; the file begins again at every second time.
    for (int i = 0; i < 18; i += 3) {
        for (int k = i; k < i + 3; ++k) {
            writer->write("Log", "Info", (std::string(100, 'x') + std::to_string(k)).c_str());
        }
        for (int k = i; k < i + 3; ++k) {
            expect(std::string(100, 'x') + std::to_string(k));
        }
    }
    auto next = make(name + "1.5.log");
    writer->write("Log", "Info", "last of 0");
    expect("last of 0");
    next->write("Log", "Info", "next number");
    expect("next number");
    auto midnight = make("f_info_11222026_0.5.log");
    midnight->write("Log", "Info", "next day");
    expect("next day");
    auto restarted = make("f_info_11222026_0.6.log");
    restarted->write("Log", "Info", "restarted");
    EXPECT_EQ(folder.Next(), "restarted");
    midnight->write("Log", "Info", "not the other process");
    expect("not the other process");
}
