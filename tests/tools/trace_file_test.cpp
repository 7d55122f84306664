// What the reader finds in trace files, against what the library wrote into them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <nx/trace/CNxT120TraceFile.h>
#include <unistd.h>

#include "../support/TempFolder.h"
#include "CTraceFile.h"
#include "TraceSamples.h"

namespace {

using Texts = std::vector<std::string>;

void TakeNew(CTraceFile& file, Texts& texts) {
    CTraceBatch batch;
    if (file.ReadNew(batch) == CTraceFile::READ) {
        for (const CTraceRecord& record : batch.m_records) {
            texts.emplace_back(record.m_text);
        }
    }
}

Texts ReadTexts(const std::string& path) {
    CTraceFile file(path);
    Texts texts;
    TakeNew(file, texts);
    return texts;
}

bool IsEndOf(const Texts& end, const Texts& all) {
    return end.size() <= all.size() && std::equal(end.rbegin(), end.rend(), all.rbegin());
}

// Texts of all lengths, so that the wraps come at all distances from a record's end.
std::string TextOf(int i) {
    return std::to_string(i) + std::string(static_cast<size_t>(i * 37 % 150), 'x');
}

}  // namespace

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
            TakeNew(followed, seen);
            ASSERT_EQ(seen, written);
            if (i % 100 == 99) {
                Texts left;
                TakeNew(overtaken, left);
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
    Texts seen;
    TakeNew(followed, seen);
    folder.Put("t", HeaderLine(999999999999999999) +
                        FileOf(newer + RecordLine(7, "Info:g"), older.substr(60)).substr(32));
    TakeNew(followed, seen);
    EXPECT_EQ(seen, (Texts{"d", "e", f, "g"}));
}

// Before, reading it took as much memory as the file has bytes.
TEST(TraceFile, HolesAreLeftOutHoweverLargeTheyAre) {
    const CTempFolder folder;
    constexpr off_t LARGE = off_t{1} << 36;
    const std::string path =
        folder.Put("t", FileOf(RecordLine(5, "Info:a") + RecordLine(6, "Info:b")));
    const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    const std::string far = RecordLine(3, "Info:c") + RecordLine(4, "Info:d");
    if (pwrite(fd, far.data(), far.size(), LARGE) < 0) {
        close(fd);
        GTEST_SKIP() << "no files of that size here";
    }
    CTraceFile file(path);
    Texts seen;
    TakeNew(file, seen);
    EXPECT_EQ(seen, (Texts{"c", "d", "a", "b"}));
    // A header that points beyond the hole, of a file that is followed.
    const std::string header = HeaderLine(static_cast<size_t>(LARGE) + far.size());
    ASSERT_EQ(pwrite(fd, header.data(), header.size(), 0), 32);
    TakeNew(file, seen);
    EXPECT_EQ(seen.size(), 4U);
    close(fd);
}
