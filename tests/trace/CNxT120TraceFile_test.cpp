#include <nx/trace/CNxT120TraceFile.h>
#include <sys/mount.h>
#include <sys/resource.h>

#include <csignal>

#include "TraceFiles.h"

namespace {

// Private and shared.
constexpr unsigned char c_bothModes[] = {0, 1};

// What the file must hold, byte by byte, after every write.
struct CFileModel {
    void Write(const std::string& record) {
        m_waiting += record;
        if (++m_waitingCount < m_linesPerFlush) {
            return;
        }
        if (m_maxSize != 0 && m_maxSize <= m_offset) {
            m_bytes.resize(m_offset);
            m_isWrapped = true;
            m_offset = m_isShared ? HEADER_SIZE : m_offset;
        }
        m_bytes.replace(m_offset, m_waiting.size() + MARKER.size(), m_waiting + MARKER);
        m_offset += m_waiting.size();
        m_bytes.replace(0, HEADER_SIZE, HeaderOf(m_offset));
        m_waiting.clear();
        m_waitingCount = 0;
    }

    const size_t m_maxSize;
    const bool m_isShared;
    const int m_linesPerFlush;
    std::string m_bytes = HeaderOf(HEADER_SIZE);
    size_t m_offset = HEADER_SIZE;
    std::string m_waiting = {};
    int m_waitingCount = 0;
    bool m_isWrapped = false;
};

class CNxT120TraceFileTest : public testing::Test {
protected:
    // Forty records of many lengths into a file of that size.
    void CompareWithModel(size_t maxSize, unsigned char shared, int lines,
                          const std::string& stamp) {
        CNxT120TraceFile file(m_path.c_str(), maxSize, shared, 1);
        ASSERT_EQ(ReadWhole(m_path), HeaderOf(HEADER_SIZE));
        ASSERT_EQ(file.refresh_settings(maxSize, lines), 1);
        CFileModel model{maxSize, shared != 0, shared != 0 ? 1 : lines};
        for (size_t i = 0; i < 40; ++i) {
            const std::string text = i % 11 == 5 ? std::string(i * 7, 'y') : "x";
            const bool isPrefixed = i % 3 != 0;
            file.write("Log", isPrefixed ? "Info" : nullptr, text.c_str());
            model.Write(stamp + (isPrefixed ? "Info:" : "") + text + "\n");
            const std::string actual = ReadWhole(m_path);
            ASSERT_EQ(actual.substr(0, HEADER_SIZE), model.m_bytes.substr(0, HEADER_SIZE));
            ASSERT_EQ(Masked(actual), Masked(model.m_bytes)) << "after " << i;
            ASSERT_EQ(file.is_wrapped(), model.m_isWrapped && shared == 0);
        }
    }

    const CTempFolder m_folder;
    const std::string m_path = m_folder.Path("trace.log");
};

TEST_F(CNxT120TraceFileTest, HoldsExactlyItsBytesAtEverySizeLimitAroundTheWrapAndWithoutALimit) {
    CNxT120TraceFile(m_path.c_str(), 0, 0, 1).write(nullptr, nullptr, "");
    const std::string probe = ReadWhole(m_path);
    ASSERT_EQ(TextsOf(probe), Texts{""});
    const std::string stamp =
        probe.substr(HEADER_SIZE, probe.find('\n', HEADER_SIZE) - HEADER_SIZE);
    const size_t wrap = HEADER_SIZE + 3 * (stamp.size() + 7);
    for (const unsigned char shared : c_bothModes) {
        for (const int lines : {1, 7, 0}) {
            for (const size_t maxSize : {0UL, wrap - 2, wrap - 1, wrap, wrap + 1, wrap + 2}) {
                SCOPED_TRACE(testing::Message() << +shared << " " << lines << " " << maxSize);
                CompareWithModel(maxSize, shared, lines, stamp);
            }
        }
    }
}

TEST_F(CNxT120TraceFileTest, AMeddledHeaderCountsAs32) {
    for (const std::string& header :
         {HeaderOf(31), HeaderOf(100000), std::string("-9223372036854775808"),
          std::string("99999999999999999999999999999999"), std::string(32, 'z'), std::string()}) {
        CNxT120TraceFile file(m_path.c_str(), 200000, 1, 0);
        std::ofstream(m_path, std::ios::binary) << header << "\n";
        ASSERT_TRUE(file.attach());
        file.write(nullptr, nullptr, "anew");
        EXPECT_EQ(TextsIn(m_path), Texts{"anew"}) << header;
    }
}

TEST_F(CNxT120TraceFileTest, WhatCannotBeOpenedOrWrittenDropsRecords) {
    for (const char* path : {"/nowhere/x.log", "/tmp", "", "/dev/full"}) {
        for (const unsigned char shared : c_bothModes) {
            CNxT120TraceFile file(path, 1000, shared, 1);
            for (int i = 0; i < 100; ++i) {
                file.write("Log", "Info", "dropped");
            }
            file.refresh_settings(0, 7);
        }
    }
}

// Writes until nothing more fits, then again after `makeRoom`: what was there stays readable, and
// the records that follow arrive whole. Returns how many there were before.
template <class MakeRoom>
size_t FillThenResume(const std::string& path, unsigned char shared, MakeRoom makeRoom) {
    CNxT120TraceFile file(path.c_str(), 0, shared, 1);
    for (int i = 0; i < 3000; ++i) {
        file.write("Log", "Info", ("line " + std::to_string(i)).c_str());
    }
    // Without room for its header the file is empty.
    const size_t before = ReadWhole(path).empty() ? 0 : TextsIn(path).size();
    makeRoom();
    file.write("Log", "Info", "resumed");
    Texts after = TextsIn(path);
    EXPECT_GT(after.size(), before);
    EXPECT_EQ(after.back(), "Info:resumed");
    after.pop_back();
    for (size_t i = 0; i < after.size(); ++i) {
        EXPECT_EQ(after[i], "Info:line " + std::to_string(i));
    }
    return before;
}

void LimitFileSize(rlim_t bytes) {
    const struct rlimit limit = {bytes, RLIM_INFINITY};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
}

TEST_F(CNxT120TraceFileTest, KeepsWhatIsOnDiskWhenNothingMoreFitsAndGoesOnWithRoom) {
    std::signal(SIGXFSZ, SIG_IGN);
    for (const unsigned char shared : c_bothModes) {
        for (const rlim_t limit : {10U, 100U, 150U, 5000U, 5050U}) {
            SCOPED_TRACE(limit);
            LimitFileSize(limit);
            const auto makeRoom = [] { LimitFileSize(RLIM_INFINITY); };
            EXPECT_LE(FillThenResume(m_path, shared, makeRoom), limit / 50);
        }
    }
}

TEST_F(CNxT120TraceFileTest, AFullFileSystemLosesNothingThatWasWritten) {
    if (mount("tmpfs", m_folder.Path().c_str(), "tmpfs", 0, "size=64k") != 0) {
        GTEST_SKIP() << "no right to mount a tmpfs";
    }
    for (const unsigned char shared : c_bothModes) {
        const std::string ballast = m_folder.Put("ballast", std::string(32768, 'b'));
        const auto makeRoom = [&] { std::filesystem::remove(ballast); };
        const size_t before = FillThenResume(m_path, shared, makeRoom);
        EXPECT_GT(before, 100u);
        EXPECT_LT(before, 3000u);
    }
    umount2(m_folder.Path().c_str(), MNT_DETACH);
}

}  // namespace
