#include "TraceFiles.h"

#include <fcntl.h>
#include <nx/trace/CNxT120TraceFile.h>
#include <nx/trace/CNxT120TraceFileMgr.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <memory>

namespace {

// Private and shared.
constexpr unsigned char c_bothModes[] = {0, 1};

// What the file must hold, byte by byte, after every write.
class CFileModel {
public:
    CFileModel(std::string path, size_t maxSize, bool isShared, size_t linesPerFlush)
        : m_path(std::move(path)),
          m_maxSize(maxSize),
          m_isShared(isShared),
          m_linesPerFlush(linesPerFlush) {
        SetOffset(HEADER_SIZE);
    }

    void Write(const std::string& text) {
        m_waiting.push_back(text);
        const std::string actual = ReadWhole(m_path);
        if (m_waiting.size() >= m_linesPerFlush) {
            Flush(actual);
        }
        ASSERT_EQ(m_bytes, actual) << "after " << text;
    }

    bool m_isWrapped = false;

private:
    void SetOffset(size_t offset) {
        m_bytes.replace(0, HEADER_SIZE, HeaderOf(offset));
        m_offset = offset;
    }

    void Flush(const std::string& actual) {
        size_t at = m_offset;
        if (m_maxSize != 0 && m_maxSize <= at) {
            m_bytes.resize(at);
            m_isWrapped = true;
            at = m_isShared ? HEADER_SIZE : at;
        }
        std::string written;
        for (const std::string& text : m_waiting) {
            // The stamp is what the file says it is, as long as it has the form of one.
            const size_t stampEnd = actual.find("] ", at + written.size()) + 2;
            const std::string stamp =
                actual.substr(at + written.size(), stampEnd - at - written.size());
            ASSERT_TRUE(IsRecord(stamp)) << stamp;
            written += stamp + text + "\n";
        }
        m_waiting.clear();
        m_bytes.resize(std::max(m_bytes.size(), at + written.size() + MARKER.size()));
        m_bytes.replace(at, written.size() + MARKER.size(), written + MARKER);
        SetOffset(at + written.size());
    }

    const std::string m_path;
    const size_t m_maxSize;
    const bool m_isShared;
    const size_t m_linesPerFlush;
    std::vector<std::string> m_waiting;
    std::string m_bytes;
    size_t m_offset = 0;
};

class CNxT120TraceFileTest : public CScratchFolder {
protected:
    const std::string m_path = m_folder + "/trace.log";
};

// One record of "Info:x" is as long as the stamp and 7 bytes.
size_t RecordSize(const std::string& path) {
    CNxT120TraceFile probe(path.c_str(), 0, 0, 1);
    probe.write("Log", "Info", "x");
    return std::strtoul(ReadWhole(path).c_str(), nullptr, 10) - HEADER_SIZE;
}

TEST_F(CNxT120TraceFileTest, HoldsExactlyItsBytesAtEverySizeLimitAroundTheWrap) {
    const size_t record = RecordSize(m_folder + "/probe.log");
    for (const bool isShared : {false, true}) {
        for (const int lines : {1, 7, 0}) {
            for (size_t maxSize = HEADER_SIZE + 3 * record - 2;
                 maxSize < HEADER_SIZE + 3 * record + 3; ++maxSize) {
                SCOPED_TRACE(testing::Message() << isShared << " " << lines << " " << maxSize);
                CNxT120TraceFile file(m_path.c_str(), maxSize, isShared ? 1 : 0, 1);
                ASSERT_EQ(ReadWhole(m_path), HeaderOf(HEADER_SIZE));
                ASSERT_EQ(file.refresh_settings(maxSize, lines), 1);
                CFileModel model(m_path, maxSize, isShared,
                                 isShared || lines < 1 ? 1U : static_cast<size_t>(lines));
                for (size_t i = 0; i < 40; ++i) {
                    const std::string text = i % 11 == 5 ? std::string(i * 7, 'y') : "x";
                    const bool isPrefixed = i % 3 != 0;
                    file.write("Log", isPrefixed ? "Info" : nullptr, text.c_str());
                    model.Write(isPrefixed ? "Info:" + text : text);
                    ASSERT_FALSE(HasFatalFailure());
                    ASSERT_EQ(file.is_wrapped(), model.m_isWrapped && !isShared);
                }
            }
        }
    }
}

TEST_F(CNxT120TraceFileTest, SizeZeroNeverWraps) {
    for (const unsigned char shared : c_bothModes) {
        CNxT120TraceFile file(m_path.c_str(), 0, shared, 1);
        for (int i = 0; i < 100; ++i) {
            file.write("Log", "Info", "x");
        }
        EXPECT_FALSE(file.is_wrapped());
        EXPECT_EQ(TextsOf(m_path).size(), 100u);
    }
}

TEST_F(CNxT120TraceFileTest, ARecordLongerThanTheBufferIsCutAndEndsItsLine) {
    const std::string text(10000, 'y');
    CNxT120TraceFile file(m_path.c_str(), 0, 0, 1);
    file.write(nullptr, nullptr, text.c_str());
    file.write(nullptr, nullptr, "next");
    EXPECT_EQ(ReadWhole(m_path).find('\n', HEADER_SIZE), HEADER_SIZE + 2046);
    EXPECT_EQ(TextsOf(m_path).back(), "next");
    file.refresh_settings(0, 7);
    file.write(nullptr, nullptr, "before");
    file.write(nullptr, nullptr, text.c_str());
    file.write(nullptr, nullptr, text.c_str());
    file.write(nullptr, nullptr, nullptr);
    file.flush_buffer();
    const auto texts = TextsOf(m_path);
    ASSERT_EQ(texts.size(), 5u);
    EXPECT_EQ(texts[2], "before");
    EXPECT_EQ(texts[3], text);
    EXPECT_EQ(texts[4], text);
}

TEST_F(CNxT120TraceFileTest, SettingsOutOfBoundsAreBounded) {
    CNxT120TraceFile file(m_path.c_str(), ~0UL, 0, 1);
    for (const int lines : {-5, 0, 2147483647}) {
        file.refresh_settings(~0UL, lines);
        file.write(nullptr, nullptr, "kept");
    }
    file.flush_buffer();
    EXPECT_EQ(TextsOf(m_path).size(), 3u);
    EXPECT_FALSE(file.is_wrapped());
}

TEST_F(CNxT120TraceFileTest, AMeddledHeaderCountsAs32) {
    for (const std::string& header :
         {HeaderOf(31), HeaderOf(100000), std::string("-9223372036854775808"),
          std::string("99999999999999999999999999999999"), std::string(32, 'z'), std::string()}) {
        CNxT120TraceFile file(m_path.c_str(), 200000, 1, 0);
        std::ofstream(m_path, std::ios::binary) << header << "\n";
        ASSERT_TRUE(file.attach());
        file.write(nullptr, nullptr, "anew");
        EXPECT_EQ(TextsOf(m_path), std::vector<std::string>{"anew"}) << header;
    }
}

TEST_F(CNxT120TraceFileTest, AttachingKeepsWhatOthersWroteAndCreatingWipesIt) {
    CNxT120TraceFileMgr mine;
    void* const attached = mine.attach(m_path.c_str(), 0);
    CNxT120TraceFileMgr others;
    others.write(others.attach(m_path.c_str(), 0), "Log", "Info", "theirs");
    mine.write(attached, "Log", "Info", "mine");
    EXPECT_EQ(TextsOf(m_path), (std::vector<std::string>{"Info:theirs", "Info:mine"}));
    EXPECT_EQ(std::filesystem::status(m_path).permissions(), std::filesystem::perms(0666));
    EXPECT_EQ(mine.open(m_path.c_str(), 0, 0, 1), attached);
    EXPECT_NE(mine.open(nullptr, 0, 0, 1), mine.open(nullptr, 0, 0, 1));
    mine.close(attached);
    mine.close(attached);
    mine.open(m_path.c_str(), 0, 1, 1);
    EXPECT_TRUE(TextsOf(m_path).empty());
}

TEST_F(CNxT120TraceFileTest, WhatCannotBeOpenedDropsRecords) {
    for (const char* path : {"/nowhere/x.log", "/tmp", "", static_cast<const char*>(nullptr)}) {
        CNxT120TraceFile file(path, 0, 0, 1);
        file.write("Log", "Info", "dropped");
        EXPECT_FALSE(file.attach());
        file.refresh_settings(0, 7);
    }
    CNxT120TraceFile unopened(m_path.c_str(), 0, 0, 0);
    unopened.write("Log", "Info", "dropped");
    EXPECT_FALSE(std::filesystem::exists(m_path));
    for (const unsigned char shared : c_bothModes) {
        CNxT120TraceFile full("/dev/full", 1000, shared, 1);
        for (int i = 0; i < 100; ++i) {
            full.write("Log", "Info", "dropped");
        }
    }
}

// Writes until nothing more fits, then again after `makeRoom`: what was there stays readable, and
// the records that follow arrive whole.
void FillThenResume(const std::string& path, unsigned char shared, void (*makeRoom)(),
                    std::vector<std::string>& before) {
    CNxT120TraceFile file(path.c_str(), 0, shared, 1);
    for (int i = 0; i < 3000; ++i) {
        file.write("Log", "Info", ("line " + std::to_string(i)).c_str());
    }
    // Without room for its header the file is empty.
    before = ReadWhole(path).empty() ? std::vector<std::string>{} : TextsOf(path);
    makeRoom();
    file.write("Log", "Info", "resumed");
    const std::vector<std::string> after = TextsOf(path);
    ASSERT_GT(after.size(), before.size());
    EXPECT_EQ(after.back(), "Info:resumed");
    EXPECT_TRUE(std::equal(before.begin(), before.end(), after.begin()));
    for (size_t i = 0; i + 1 < after.size(); ++i) {
        EXPECT_EQ(after[i], "Info:line " + std::to_string(i));
    }
}

void LimitFileSize(rlim_t bytes) {
    struct rlimit limit {};
    getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = bytes;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
}

TEST_F(CNxT120TraceFileTest, KeepsWhatIsOnDiskWhenNothingMoreFitsAndGoesOnWithRoom) {
    const auto previous = std::signal(SIGXFSZ, SIG_IGN);
    for (const unsigned char shared : c_bothModes) {
        for (const rlim_t limit : {10U, 100U, 150U, 5000U, 5050U}) {
            SCOPED_TRACE(limit);
            LimitFileSize(limit);
            std::vector<std::string> before;
            FillThenResume(
                m_path, shared, [] { LimitFileSize(RLIM_INFINITY); }, before);
            EXPECT_LE(before.size(), limit / 50);
        }
    }
    std::signal(SIGXFSZ, previous);
}

TEST_F(CNxT120TraceFileTest, AFullFileSystemLosesNothingThatWasWritten) {
    if (mount("tmpfs", m_folder.c_str(), "tmpfs", 0, "size=64k") != 0) {
        GTEST_SKIP() << "no right to mount a tmpfs";
    }
    static std::string s_ballast;
    s_ballast = m_folder + "/ballast";
    for (const unsigned char shared : c_bothModes) {
        std::ofstream(s_ballast) << std::string(32768, 'b');
        std::vector<std::string> before;
        FillThenResume(
            m_path, shared, [] { std::filesystem::remove(s_ballast); }, before);
        EXPECT_GT(before.size(), 100u);
        EXPECT_LT(before.size(), 3000u);
    }
    umount2(m_folder.c_str(), MNT_DETACH);
}

TEST_F(CNxT120TraceFileTest, AClosedDescriptorLosesLinesOnly) {
    const int next = dup(0);
    close(next);
    CNxT120TraceFile file(m_path.c_str(), 0, 0, 1);
    file.write(nullptr, nullptr, "kept");
    close(next);
    file.write(nullptr, nullptr, "lost");
    EXPECT_EQ(TextsOf(m_path), std::vector<std::string>{"kept"});
    // Back in its place, so that the file's own close hits nothing else.
    const int again = open(m_path.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(again, next);
    file.write(nullptr, nullptr, "back");
    EXPECT_EQ(TextsOf(m_path).back(), "back");
}

}  // namespace
