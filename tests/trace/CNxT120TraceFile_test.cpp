#include <fcntl.h>
#include <nx/trace/CNxT120TraceFile.h>
#include <nx/trace/CNxT120TraceFileMgr.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <thread>

#include "TraceFiles.h"

namespace {
bool g_readFails = false;
}

extern "C" ssize_t pread(int fd, void* to, size_t size, off_t offset) {
    errno = EIO;
    return g_readFails ? -1 : syscall(SYS_pread64, fd, to, size, offset);
}

namespace {

constexpr auto c_patience = std::chrono::seconds(10);

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
    std::string m_path = m_folder.Path("trace.log");
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

TEST_F(CNxT120TraceFileTest, AHeaderThatTheSystemDoesNotReadIsNotTakenForAnother) {
    for (const unsigned char shared : c_bothModes) {
        CNxT120TraceFile file(m_path.c_str(), 0, shared, 1);
        for (const char* text : {"a", "b", "c"}) {
            g_readFails = *text == 'b';
            file.write("Log", "Info", text);
        }
        const char* const second = shared != 0 ? "Warning:1 records lost" : "Info:b";
        EXPECT_EQ(TextsIn(m_path), (Texts{"Info:a", second, "Info:c"}));
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
    EXPECT_GT(after.size(), before + 1);
    EXPECT_EQ(after.back(), "Info:resumed");
    const size_t kept = after.size() - 2;
    EXPECT_EQ(after[kept], "Warning:" + std::to_string(3000 - kept) + " records lost");
    for (size_t i = 0; i < kept; ++i) {
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

int ModeOf(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? static_cast<int>(status.st_mode & 07777) : -1;
}

// Writes into both kinds of file at the path, which is complained of once; what stderr gets.
std::string ComplaintsAbout(const std::string& path) {
    testing::internal::CaptureStderr();
    for (const unsigned char shared : c_bothModes) {
        CNxT120TraceFile file(path.c_str(), 1000, shared, 1);
        file.write("Log", "Info", "refused");
        file.write("Log", "Info", "refused");
        EXPECT_FALSE(file.is_open());
    }
    return testing::internal::GetCapturedStderr();
}

TEST_F(CNxT120TraceFileTest, RefusesWhatAnotherUserMayHavePlanted) {
    const std::string victim = m_folder.Put("victim", "secret");
    ASSERT_EQ(chmod(victim.c_str(), 0600), 0);
    const std::string missing = m_folder.Path("missing");
    const auto expectRefused = [&](const std::string& why) {
        const std::string line = "nxbase: cannot trace to " + m_path + ": " + why + "\n";
        EXPECT_EQ(ComplaintsAbout(m_path), line);
        EXPECT_EQ(m_folder.Get("victim"), "secret");
        EXPECT_EQ(ModeOf(victim), 0600);
        std::filesystem::remove(m_path);
        m_path += "x";
    };
    const std::string unsafe = "not a regular file with one name and an owner to trust";
    std::filesystem::create_symlink(victim, m_path);
    expectRefused("Too many levels of symbolic links");
    std::filesystem::create_symlink(missing, m_path);
    expectRefused("Too many levels of symbolic links");
    EXPECT_FALSE(std::filesystem::exists(missing));
    std::filesystem::create_hard_link(victim, m_path);
    expectRefused(unsafe);
    ASSERT_EQ(mkfifo(m_path.c_str(), 0666), 0);
    expectRefused(unsafe);
    if (geteuid() == 0) {
        std::ofstream(m_path) << "another's";
        ASSERT_EQ(chown(m_path.c_str(), 12345, 0), 0);
        expectRefused(unsafe);
    }
}

TEST_F(CNxT120TraceFileTest, SetsTheModeOfFilesThatItMakesAndOfNoOthers) {
    const mode_t umaskBefore = umask(077);
    const auto modeOfNew = [&](unsigned char shared) {
        std::filesystem::remove(m_path);
        CNxT120TraceFile(m_path.c_str(), 0, shared, 1).write("Log", "Info", "x");
        return ModeOf(m_path);
    };
    EXPECT_EQ(modeOfNew(0), 0600);
    EXPECT_EQ(modeOfNew(1), 0666);
    CNxT120TraceFile::SetMode(0640);
    EXPECT_EQ(modeOfNew(0), 0640);
    EXPECT_EQ(modeOfNew(1), 0640);
    CNxT120TraceFile::SetMode(-1);
    CNxT120TraceFile(m_path.c_str(), 0, 1, 1).write("Log", "Info", "x");
    EXPECT_EQ(ModeOf(m_path), 0640);
    umask(umaskBefore);
}

TEST_F(CNxT120TraceFileTest, AFileThatCannotBeOpenedIsTriedAgainAndTellsWhatWasLost) {
    for (const unsigned char shared : c_bothModes) {
        const std::string path = m_folder.Path("later/trace.log");
        CNxT120TraceFile file(path.c_str(), 0, shared, 1);
        for (int i = 0; i < 5; ++i) {
            file.write("Log", "Info", "lost");
        }
        std::filesystem::create_directory(m_folder.Path("later"));
        const auto start = std::chrono::steady_clock::now();
        long lost = 4;
        while (!file.is_open() && std::chrono::steady_clock::now() - start < c_patience) {
            file.write("Log", "Info", "next");
            ++lost;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        EXPECT_EQ(TextsIn(path),
                  (Texts{"Warning:" + std::to_string(lost) + " records lost", "Info:next"}));
        EXPECT_GT(lost, 20) << "it was tried more often than once a second";
        std::filesystem::remove_all(m_folder.Path("later"));
    }
}

// Also in one that no manager owns.
TEST_F(CNxT120TraceFileTest, AParentAndItsChildMayTakeTurnsInAPrivateFile) {
    CNxT120TraceFile own(m_folder.Path("own").c_str(), 0, 0, 1);
    void* const file = T120_Open_Trace_Dev(m_path.c_str(), 0, 0, 1);
    const auto write = [&](const char* text) {
        g_trace_mgr.write(file, "Log", "Info", text);
        own.write("Log", "Info", text);
    };
    write("parent");
    const pid_t child = fork();
    if (child == 0) {
        write("child");
        _exit(0);
    }
    waitpid(child, nullptr, 0);
    write("parent again");
    T120_Close_Trace_Dev(file);
    const Texts texts{"Info:parent", "Info:child", "Info:parent again"};
    EXPECT_EQ(TextsIn(m_path), texts);
    EXPECT_EQ(TextsIn(m_folder.Path("own")), texts);
}

// A process that holds the lock of a file.
class CLockHolder {
public:
    explicit CLockHolder(const std::string& path) {
        int ready[2];
        EXPECT_EQ(pipe(ready), 0);
        m_pid = fork();
        if (m_pid == 0) {
            struct flock lock {};
            lock.l_type = F_WRLCK;
            const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
            _exit(fcntl(fd, F_SETLKW, &lock) + static_cast<int>(write(ready[1], "x", 1)) + pause());
        }
        char got = 0;
        EXPECT_EQ(read(ready[0], &got, 1), 1);
        close(ready[0]);
        close(ready[1]);
    }
    ~CLockHolder() {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    CLockHolder(const CLockHolder&) = delete;
    CLockHolder& operator=(const CLockHolder&) = delete;

private:
    pid_t m_pid;
};

TEST_F(CNxT120TraceFileTest, ARecordWaitsAMomentForTheLockAndNoOtherThreadsWaitsForIt) {
    using CClock = std::chrono::steady_clock;
    const auto timeOf = [](CNxT120TraceFile& file, int count) {
        const auto start = CClock::now();
        for (int i = 0; i < count; ++i) {
            file.write("Log", "Info", std::to_string(i).c_str());
        }
        return std::chrono::duration_cast<std::chrono::milliseconds>(CClock::now() - start).count();
    };
    CNxT120TraceFile file(m_path.c_str(), 0, 1, 1);
    CNxT120TraceFile other(m_folder.Path("other").c_str(), 0, 1, 1);
    {
        const CLockHolder holder(m_path);
        std::thread waiting([&] {
            const auto ms = timeOf(file, 1);
            EXPECT_GE(ms, 200);
            EXPECT_LT(ms, 5000);
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_LT(timeOf(other, 10), 140);
        waiting.join();
        EXPECT_LT(timeOf(file, 100), 5000) << "each waited";
        // Emptying it would need the lock, too.
        CNxT120TraceFile late(m_path.c_str(), 0, 1, 1);
        EXPECT_FALSE(late.is_open());
    }
    file.write("Log", "Info", "0");
    EXPECT_EQ(TextsIn(m_path), (Texts{"Warning:101 records lost", "Info:0"}));
    EXPECT_EQ(TextsIn(m_folder.Path("other")).size(), 10U);
}

TEST_F(CNxT120TraceFileTest, ALossIsToldOnceByThreadsThatWaitForTheLockTogether) {
    CNxT120TraceFile file(m_path.c_str(), 0, 1, 1);
    file.AddLost(5);
    const auto writeOne = [&file] { file.write("Log", "Info", "0"); };
    auto holder = std::make_unique<CLockHolder>(m_path);
    std::thread one(writeOne);
    std::thread two(writeOne);
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    holder.reset();
    one.join();
    two.join();
    writeOne();
    unsigned long count = 0;
    for (const std::string& text : TextsIn(m_path)) {
        const bool isRecord = text == "Info:0";
        count += isRecord ? 1 : std::strtoul(text.c_str() + sizeof("Warning"), nullptr, 10);
        EXPECT_LE(count, 5U + 3U) << text;
    }
    EXPECT_EQ(count, 5U + 3U);
}

}  // namespace
