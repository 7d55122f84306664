// The trace reader: what it finds in trace files, against what the library wrote into them or what
// is made by hand, what the program prints for which options, and how it follows files.
#include <gtest/gtest.h>
#include <nx/trace/CNxT120TraceFile.h>

#include <memory>

#include "../support/Process.h"
#include "../support/TempFolder.h"
#include "CTraceFile.h"
#include "trace_print.h"

namespace {

// A line of 11/21/2026 at that second after 09:00:00.
std::string RecordLine(int second, const std::string& levelAndText, int pid = 77, int tid = -5) {
    char head[80];
    std::snprintf(head, sizeof(head), "[11/21/2026 09:%02d:%02d.000 pid=%d tid=%d] ", second / 60,
                  second % 60, pid, tid);
    return head + levelAndText + "\n";
}

std::string HeaderLine(size_t offset) {
    char header[40];
    std::snprintf(header, sizeof(header), "%-31zu\n", offset);
    return header;
}

// A file whose newer records stand before the marker, and older bytes after it.
std::string FileOf(const std::string& newer, const std::string& older = "") {
    return HeaderLine(TRACE_HEADER_SIZE + newer.size()) + newer + std::string(TRACE_MARKER) + older;
}

using Texts = std::vector<std::string>;

// What was there before, and what is new.
Texts TakeNew(CTraceFile& file, Texts texts = {}) {
    CTraceBatch batch;
    if (file.ReadNew(batch) == CTraceFile::READ) {
        for (const CTraceRecord& record : batch.m_records) {
            texts.emplace_back(record.m_text);
        }
    }
    return texts;
}

Texts ReadTexts(const std::string& path) {
    CTraceFile file(path);
    return TakeNew(file);
}

bool IsEndOf(const Texts& end, const Texts& all) {
    return end.size() <= all.size() && std::equal(end.rbegin(), end.rend(), all.rbegin());
}

// Texts of all lengths, so that the wraps come at all distances from a record's end.
std::string TextOf(int i) {
    return std::to_string(i) + std::string(static_cast<size_t>(i * 37 % 150), 'x');
}

// The follower that looks after every record sees all; the one that looks after every hundredth is
// overtaken and goes on with what is left. A private file goes on beyond its limit.
TEST(TraceFile, IsUnwrappedAfterEveryRecordAndFollowedUntilOvertaken) {
    const CTempFolder folder;
    for (const bool isShared : {false, true}) {
        const std::string path = folder.Path(isShared ? "shared" : "private");
        CNxT120TraceFile writer(path.c_str(), 3000, isShared ? 1 : 0, 1);
        CTraceFile followed(path);
        CTraceFile overtaken(path);
        Texts written;
        Texts seen;
        for (int i = 0; i < 400; ++i) {
            writer.write("Log", "Info", TextOf(i).c_str());
            written.push_back(TextOf(i));
            seen = TakeNew(followed, seen);
            ASSERT_EQ(seen, written);
            if (i % 100 == 99) {
                const Texts left = TakeNew(overtaken);
                ASSERT_GE(left.size(), 8U);
                ASSERT_TRUE(IsEndOf(left, written));
            }
            const Texts all = ReadTexts(path);
            ASSERT_FALSE(all.empty());
            ASSERT_TRUE(IsEndOf(all, written)) << "record " << i;
        }
    }
}

TEST(TraceFile, DamageCostsNoRecordThatIsStillWhole) {
    const CTempFolder folder;
    const std::string f = "f\n\n[its third line]";
    const std::string newer = RecordLine(5, "Info:e") + RecordLine(6, "Info:" + f);
    const std::string older = RecordLine(3, "Info:c") + RecordLine(4, "Info:d");
    const std::string good = FileOf(newer, older.substr(10));
    const Texts expected = {"d", "e", f};
    EXPECT_EQ(ReadTexts(folder.Put("t", good)), expected);
    for (const std::string& header :
         {std::string(32, 'x'), std::string(32, '\0'), HeaderLine(7), HeaderLine(40),
          HeaderLine(1000000), std::string("99999999999999999999999999999999")}) {
        EXPECT_EQ(ReadTexts(folder.Put("t", header + good.substr(32))), expected) << header;
    }
    // Cut off at the front; a writer killed between a record's beginning and its marker; zeros from
    // a full disk.
    EXPECT_EQ(ReadTexts(folder.Put("t", good.substr(50))), (Texts{"d", f}));
    EXPECT_EQ(ReadTexts(folder.Put("t", HeaderLine(32 + newer.size()) + newer + older)), expected);
    EXPECT_EQ(ReadTexts(folder.Put("t", FileOf(std::string(9, '\0') + newer))), (Texts{"e", f}));
    // The header of a file that is followed goes wrong.
    CTraceFile followed(folder.Put("t", good));
    const Texts before = TakeNew(followed);
    folder.Put("t", HeaderLine(999999999999999999) +
                        FileOf(newer + RecordLine(7, "Info:g"), older.substr(60)).substr(32));
    EXPECT_EQ(TakeNew(followed, before), (Texts{"d", "e", f, "g"}));
}

// Before, reading it took as much memory as the file has bytes.
TEST(TraceFile, HolesAreLeftOutHoweverLargeTheyAre) {
    const CTempFolder folder;
    constexpr std::uintmax_t LARGE = std::uintmax_t{1} << 36;
    const std::string path =
        folder.Put("t", FileOf(RecordLine(5, "Info:a") + RecordLine(6, "Info:b")));
    std::filesystem::resize_file(path, LARGE);
    std::ofstream(path, std::ios::app) << RecordLine(3, "Info:c") << RecordLine(4, "Info:d");
    EXPECT_EQ(ReadTexts(path), (Texts{"c", "d", "a", "b"}));
}

std::string Nxtrace(const std::string& arguments, int* status = nullptr) {
    return OutputOf(NXTRACE " " + arguments + " 2>&1", status);
}

// nxtrace -f as a process of its own.
class CFollower : private Process {
public:
    explicit CFollower(const std::string& arguments) : Process(NXTRACE " -f " + arguments) {}

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

TEST_F(CNxtraceTest, MergesFilesByTimeAndShowsSecondCopiesOnce) {
    EXPECT_EQ(Nxtrace(Dir()), m_one + m_other + m_bad + m_slow);
    EXPECT_EQ(Nxtrace(Dir() + "--process srv"), m_one + m_bad + m_slow);
    const std::string file = m_folder.Path("srv_error_11212026_0.77.log");
    EXPECT_EQ(Nxtrace(file + " " + file + " " + m_folder.Path("./srv_info_11212026_0.77.log")),
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
    Nxtrace(Dir() + "> /dev/full", &status);
    EXPECT_EQ(status, 1);
    Nxtrace("-f /nowhere", &status);
    EXPECT_EQ(status, 1);
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

}  // namespace
