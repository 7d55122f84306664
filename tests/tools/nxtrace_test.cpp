// The program: what it prints for which options, and how it follows files.
#include <gtest/gtest.h>
#include <nx/trace/CNxT120TraceFile.h>

#include <memory>

#include "../support/Process.h"
#include "../support/TempFolder.h"
#include "TraceSamples.h"
#include "trace_name.h"
#include "trace_print.h"

namespace {

const std::string s_program = NXTRACE;

std::string Nxtrace(const std::string& arguments, int* status = nullptr) {
    return OutputOf(s_program + " " + arguments + " 2>&1", status);
}

// nxtrace -f as a process of its own.
class CFollower : private Process {
public:
    explicit CFollower(const std::string& arguments) : Process(s_program + " -f " + arguments) {}

    // The text of the next record; "" when none comes.
    std::string Next() const {
        const std::string line = ReadLine();
        CTraceRecord record;
        return ParseRecord(line, record) ? std::string(record.m_text) : "";
    }
};

class CNxtraceTest : public testing::Test {
protected:
    // The info file of a process with errors in a file of their own, and another process.
    void SetUp() override {
        m_folder.Put("srv_info_11212026_0.77.log", FileOf(m_one + m_bad + m_slow));
        m_folder.Put("srv_error_11212026_0.77.log", FileOf(m_bad));
        m_folder.Put("srv_2_info_11212026_0.78.log", FileOf(m_other));
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
    const std::string file = m_folder.Path("srv_error_11212026_0.77.log");
    EXPECT_EQ(Nxtrace(file + " " + file), m_bad) << "the same file twice is one file";
    EXPECT_EQ(Nxtrace(file + " " + m_folder.Path("./srv_info_11212026_0.77.log")),
              m_one + m_bad + m_slow);
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
    // A file of the same name in another folder is another process's.
    std::filesystem::create_directory(m_folder.Path("d"));
    m_folder.Put("d/c_info_11212026_11.5.log", FileOf(RecordLine(15, "Info:d")));
    EXPECT_EQ(Nxtrace(m_folder.Path("c_info_11212026_10.5.log ") +
                      m_folder.Path("d/c_info_11212026_11.5.log")),
              RecordLine(15, "Info:d") + RecordLine(20, "Info:b"));
}

TEST_F(CNxtraceTest, FiltersRecords) {
    EXPECT_EQ(Nxtrace(Dir() + "--level 'error, WARNING'"), m_bad + m_slow);
    EXPECT_EQ(Nxtrace(Dir() + "--tid 9,-5 --pid 77"), m_one + m_bad + m_slow);
    EXPECT_EQ(Nxtrace(Dir() + "--grep '^(Info|Error):.*[ed]$'"), m_one + m_bad);
    EXPECT_EQ(Nxtrace(Dir() + "--since '2026-11-21 09:00:03'"), m_bad + m_slow);
    EXPECT_EQ(Nxtrace(Dir() + "--until '11/21/2026 09:00:02.999'"), m_one + m_other);
    EXPECT_EQ(Nxtrace(Dir() + "-n 1 --level info"), m_other);
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
    const std::string line =
        "[11/21/2026 09:00:00.000 pid=1 tid=2] Error:\033[2J\t\xc2\x9bx\xc3\xa9";
    ASSERT_TRUE(ParseRecord(line, record));
    PrintRecord(out, EOutput::TERMINAL, record);
    PrintRecord(out, EOutput::TERMINAL_WITHOUT_COLOUR, record);
    std::fclose(out);
    const std::string shown =
        "[11/21/2026 09:00:00.000 pid=1 tid=2] Error:\\x1b[2J\t\\xc2\\x9bx\xc3\xa9";
    EXPECT_EQ(text, "\033[31m" + shown + "\033[0m\n" + shown + "\n");
    free(text);
}

TEST_F(CNxtraceTest, RefusesWhatIsNoTraceFileAndGoesOn) {
    int status = 0;
    const std::string bad = m_folder.Path("srv_info.old");
    const std::string good = m_folder.Path("srv_2_info_11212026_0.78.log");
    EXPECT_EQ(Nxtrace(bad + " /dev/null /tmp /nowhere " + m_folder.Put("empty", "") + " " + good,
                      &status),
              "nxtrace: " + bad +
                  ": not a trace file\nnxtrace: /dev/null: not a trace file\nnxtrace: /tmp: Is a "
                  "directory\n"
                  "nxtrace: /nowhere: No such file or directory\n" +
                  m_other);
    EXPECT_EQ(status, 1);
    for (const char* const wrong : {"", "--nothing", "-n x f", "--since 25:00 f", "--grep '(' f",
                                    "--pid x f", "--stat -f f", "--level , f"}) {
        Nxtrace(wrong, &status);
        EXPECT_EQ(status, 2) << wrong;
    }
    for (const std::string& failing : {Dir() + "> /dev/full", std::string("-f /nowhere")}) {
        Nxtrace(failing, &status);
        EXPECT_EQ(status, 1) << failing;
    }
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
    ASSERT_TRUE(FindTraceFiles(folder.Path("logs"), "w", files));
    EXPECT_GT(files.size(), 12U);

    std::string expected;
    for (int i = 0; i < 300; ++i) {
        constexpr const char* LEVELS[] = {"Info", "Warning", "Error", "Fatal"};
        expected += LEVELS[i % 4] + (":" + std::to_string(i) + "\n");
    }
    const std::string all = "--dir " + folder.Path("logs") + " --process w";
    EXPECT_EQ(Nxtrace(all + " | sed 's/^[^]]*] //'"), expected);
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
    // The file begins again at every sixth.
    for (int i = 0; i < 18; ++i) {
        const std::string text = std::string(100, 'x') + std::to_string(i);
        writer->write("Log", "Info", text.c_str());
        expect(text);
    }
    auto next = make(name + "1.5.log");
    writer->write("Log", "Info", "last of 0");
    expect("last of 0");
    next->write("Log", "Info", "next number");
    expect("next number");
    // Another process is nothing to who follows the files of the first.
    make("f_info_11222026_0.6.log")->write("Log", "Info", "restarted");
    EXPECT_EQ(folder.Next(), "restarted");
    make("f_info_11222026_0.5.log")->write("Log", "Info", "next day");
    expect("next day");
    make("f_info_11202026_0.5.log")->write("Log", "Info", "clock set back");
    expect("clock set back");
}
