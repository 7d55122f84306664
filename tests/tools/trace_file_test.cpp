// What the reader finds in trace files, against what the library wrote into them.
#include <gtest/gtest.h>
#include <nx/trace/CNxT120TraceFile.h>

#include <deque>

#include "../support/TempFolder.h"
#include "CTraceFile.h"
#include "TraceSamples.h"

namespace {

std::vector<std::string> TextsOf(const CTraceBatch& batch) {
    std::vector<std::string> texts;
    for (const CTraceRecord& record : batch.m_records) {
        texts.emplace_back(record.m_text);
    }
    return texts;
}

std::vector<std::string> ReadTexts(CTraceFile& file) {
    CTraceBatch batch;
    return file.ReadNew(batch) == CTraceFile::READ ? TextsOf(batch) : std::vector<std::string>();
}

std::vector<std::string> ReadTexts(const std::string& path) {
    CTraceFile file(path);
    return ReadTexts(file);
}

// Texts of all lengths, so that the wraps come at all distances from a record's end.
std::string TextOf(int i) {
    return std::to_string(i) + std::string(static_cast<size_t>(i * 37 % 150), 'x');
}

using Texts = std::vector<std::string>;

}  // namespace

TEST(TraceFile, PrivateFileGivesEveryFlushedRecordInOrder) {
    const CTempFolder folder;
    CNxT120TraceFile writer(folder.Path("t").c_str(), 500, 0, 1);
    writer.refresh_settings(500, 7);
    CTraceFile followed(folder.Path("t"));
    Texts written;
    Texts seen;
    for (int i = 0; i < 50; ++i) {
        writer.write("Log", "Info", TextOf(i).c_str());
        written.push_back(TextOf(i));
        for (const std::string& text : ReadTexts(followed)) {
            seen.push_back(text);
        }
        ASSERT_EQ(seen.size(), written.size() / 7 * 7);
    }
    writer.flush_buffer();
    EXPECT_EQ(ReadTexts(folder.Path("t")), written);
}

TEST(TraceFile, SharedFileIsUnwrappedAfterEveryRecordAndFollowedWithoutLossOrRepetition) {
    const CTempFolder folder;
    CNxT120TraceFile writer(folder.Path("t").c_str(), 3000, 1, 1);
    CTraceFile followed(folder.Path("t"));
    CTraceFile followedSlowly(folder.Path("t"));
    Texts written;
    Texts seen;
    Texts seenSlowly;
    const auto append = [](Texts& all, const Texts& more) {
        all.insert(all.end(), more.begin(), more.end());
    };
    for (int i = 0; i < 400; ++i) {
        writer.write("Log", "Info", TextOf(i).c_str());
        written.push_back(TextOf(i));
        append(seen, ReadTexts(followed));
        ASSERT_EQ(seen, written);
        if (i % 5 == 0) {
            append(seenSlowly, ReadTexts(followedSlowly));
            ASSERT_EQ(seenSlowly, written);
        }
        const Texts all = ReadTexts(folder.Path("t"));
        ASSERT_FALSE(all.empty());
        ASSERT_LE(all.size(), written.size());
        ASSERT_TRUE(std::equal(all.rbegin(), all.rend(), written.rbegin())) << "record " << i;
    }
}

TEST(TraceFile, FollowerThatWasOvertakenGoesOnWithWhatIsLeft) {
    const CTempFolder folder;
    CNxT120TraceFile writer(folder.Path("t").c_str(), 3000, 1, 1);
    CTraceFile followed(folder.Path("t"));
    int next = 0;
    for (const int count : {10, 60, 200}) {
        for (int i = 0; i < count; ++i) {
            writer.write("Log", "Info", TextOf(next++).c_str());
        }
        const Texts texts = ReadTexts(followed);
        ASSERT_GE(texts.size(), 8U);
        for (size_t i = 0; i < texts.size(); ++i) {
            EXPECT_EQ(texts[i], TextOf(next - static_cast<int>(texts.size() - i)));
        }
    }
}

TEST(TraceFile, DamageCostsNoRecordThatIsStillWhole) {
    const CTempFolder folder;
    const std::string newer = RecordLine(5, "Info:e") + RecordLine(6, "Info:f");
    const std::string older = RecordLine(3, "Info:c") + RecordLine(4, "Info:d");
    const std::string good = FileOf(newer, older.substr(10));
    const Texts expected = {"d", "e", "f"};
    EXPECT_EQ(ReadTexts(folder.Put("good", good)), expected);
    for (const std::string& header :
         {std::string(32, 'x'), std::string(32, '\0'), HeaderLine(7), HeaderLine(40),
          HeaderLine(1000000), std::string("99999999999999999999999999999999")}) {
        EXPECT_EQ(ReadTexts(folder.Put("t", header + good.substr(32))), expected) << header;
    }
    // Cut off at the front; a writer killed between a record's beginning and its marker; zeros from
    // a full disk.
    EXPECT_EQ(ReadTexts(folder.Put("t", good.substr(50))), (Texts{"d", "f"}));
    EXPECT_EQ(ReadTexts(folder.Put("t", HeaderLine(32 + newer.size()) + newer + older)),
              (Texts{"d", "e", "f"}));
    EXPECT_EQ(ReadTexts(folder.Put("t", FileOf(std::string(9, '\0') + newer))), (Texts{"e", "f"}));
    // The header of a file that is followed goes wrong.
    CTraceFile followed(folder.Put("t", good));
    EXPECT_EQ(ReadTexts(followed), expected);
    folder.Put("t", HeaderLine(999999999999999999) +
                        FileOf(newer + RecordLine(7, "Info:g"), older.substr(60)).substr(32));
    EXPECT_EQ(ReadTexts(followed), Texts{"g"});
}

TEST(TraceFile, TakesRecordsApart) {
    CTraceRecord record;
    const std::string line = "[02/28/2026 23:59:58.007 pid=2147483647 tid=-2147483648] Info:a:b";
    ASSERT_TRUE(ParseRecord(line, record));
    EXPECT_EQ(record.m_time, CalendarMs(2026, 2, 28, 23, 59, 58, 7));
    EXPECT_EQ(record.m_pid, 2147483647);
    EXPECT_EQ(record.m_tid, -2147483648);
    EXPECT_EQ(record.m_level, "Info");
    EXPECT_EQ(record.m_text, "a:b");
    ASSERT_TRUE(ParseRecord("[02/28/2026 23:59:58.007 pid=1 tid=2] no level: x", record));
    EXPECT_EQ(record.m_level, "");
    EXPECT_EQ(record.m_text, "no level: x");
    for (const char* const bad :
         {"", "[", "[13/01/2026 00:00:00.000 pid=1 tid=2] x", "[02/28/2026 23:59:58.007 pid=1 tid",
          " [02/28/2026 23:59:58.007 pid=1 tid=2] x", "[02/28/2026 23:59:58.007 pid=x tid=2] x"}) {
        EXPECT_FALSE(ParseRecord(bad, record)) << bad;
    }
}

TEST(TraceFile, TextOfSeveralLinesIsOneRecord) {
    const CTempFolder folder;
    const std::string records = RecordLine(1, "Info:a\n\n[b]") + RecordLine(2, "Info:c");
    EXPECT_EQ(ReadTexts(folder.Put("t", FileOf(records))), (Texts{"a\n\n[b]", "c"}));
}
