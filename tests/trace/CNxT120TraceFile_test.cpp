#include <fcntl.h>
#include <nx/trace/CNxT120TraceFile.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>

#include "../process/Children.h"
#include "TraceFiles.h"

namespace {
bool g_readFails = false;
}

extern "C" ssize_t pread(int fd, void* to, size_t size, off_t offset) {
    errno = EIO;
    return g_readFails ? -1 : syscall(SYS_pread64, fd, to, size, offset);
}

namespace {

// Private and shared.
constexpr unsigned char c_bothModes[] = {0, 1};

class CNxT120TraceFileTest : public testing::Test {
protected:
    const CTempFolder m_folder;
    std::string m_path = m_folder.Path("trace.log");
};

TEST_F(CNxT120TraceFileTest, BeginsAgainWithTheFirstRecordThatFindsItsLimitReached) {
    CNxT120TraceFile(m_path.c_str(), 0, 1, 1).write("Log", "Info", "x");
    const size_t record = ReadWhole(m_path).size() - HEADER_SIZE - MARKER.size();
    for (const size_t more : {0UL, 1UL}) {
        CNxT120TraceFile file(m_path.c_str(), HEADER_SIZE + 3 * record + more, 1, 1);
        for (const char* text : {"1", "2", "3", "4"}) {
            file.write("Log", "Info", text);
        }
        EXPECT_EQ(TextsIn(m_path).size(), more == 0 ? 1U : 4U);
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
    CNxT120TraceFile file(m_path.c_str(), 0, 1, 1);
    for (const char* text : {"a", "b", "c"}) {
        g_readFails = *text == 'b';
        file.write("Log", "Info", text);
    }
    EXPECT_EQ(TextsIn(m_path), (Texts{"Info:a", "Warning:1 records lost", "Info:c"}));
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
            CNxT120TraceFile file(m_path.c_str(), 0, shared, 1);
            for (int i = 0; i < 3000; ++i) {
                file.write("Log", "Info", ("line " + std::to_string(i)).c_str());
            }
            // Without room for its header the file is empty.
            const size_t before = ReadWhole(m_path).empty() ? 0 : TextsIn(m_path).size();
            EXPECT_LE(before, limit / 50);
            LimitFileSize(RLIM_INFINITY);
            file.write("Log", "Info", "resumed");
            const Texts after = TextsIn(m_path);
            ASSERT_GT(after.size(), before + 1);
            EXPECT_EQ(after.back(), "Info:resumed");
            const size_t kept = after.size() - 2;
            EXPECT_EQ(after[kept], "Warning:" + std::to_string(3000 - kept) + " records lost");
            for (size_t i = 0; i < kept; ++i) {
                EXPECT_EQ(after[i], "Info:line " + std::to_string(i));
            }
        }
    }
}

int ModeOf(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? static_cast<int>(status.st_mode & 07777) : -1;
}

TEST_F(CNxT120TraceFileTest, RefusesWhatAnotherUserMayHavePlanted) {
    const std::string victim = m_folder.Put("victim", "secret");
    const int mode = ModeOf(victim);
    std::filesystem::create_symlink(victim, m_folder.Path("0"));
    std::filesystem::create_symlink(m_folder.Path("missing"), m_folder.Path("1"));
    std::filesystem::create_hard_link(victim, m_folder.Path("2"));
    ASSERT_EQ(mkfifo(m_folder.Path("3").c_str(), 0666), 0);
    const std::string others = m_folder.Put("4", "another's");
    const int count = chown(others.c_str(), 12345, 0) == 0 ? 5 : 4;
    for (int i = 0; i < count; ++i) {
        const std::string path = m_folder.Path(std::to_string(i));
        testing::internal::CaptureStderr();
        for (const unsigned char shared : c_bothModes) {
            CNxT120TraceFile file(path.c_str(), 1000, shared, 1);
            file.write("Log", "Info", "refused");
            EXPECT_FALSE(file.is_open());
        }
        const std::string why = i < 2 ? "Too many levels of symbolic links"
                                      : "not a regular file with one name and an owner to trust";
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  "nxbase: cannot trace to " + path + ": " + why + "\n");
    }
    EXPECT_EQ(m_folder.Get("victim"), "secret");
    EXPECT_EQ(ModeOf(victim), mode);
    EXPECT_FALSE(std::filesystem::exists(m_folder.Path("missing")));
}

TEST_F(CNxT120TraceFileTest, SetsTheModeOfFilesThatItMakesAndOfNoOthers) {
    const mode_t umaskBefore = umask(077);
    const auto modeMade = [&](const char* name, unsigned char shared) {
        CNxT120TraceFile(m_folder.Path(name).c_str(), 0, shared, 1).write("Log", "Info", "x");
        return ModeOf(m_folder.Path(name));
    };
    EXPECT_EQ(modeMade("all", 1), 0666);
    EXPECT_EQ(modeMade("own", 0), 0600);
    CNxT120TraceFile::SetMode(0640);
    EXPECT_EQ(modeMade("group", 1), 0640);
    EXPECT_EQ(modeMade("all", 1), 0666);
    CNxT120TraceFile::SetMode(-1);
    EXPECT_EQ(modeMade("group", 1), 0640);
    umask(umaskBefore);
}

// In one that no manager owns, and that nothing flushes before the fork.
TEST_F(CNxT120TraceFileTest, AParentAndItsChildMayTakeTurnsInAPrivateFile) {
    CNxT120TraceFile file(m_path.c_str(), 0, 0, 1);
    file.write("Log", "Info", "parent");
    InChild([&] { file.write("Log", "Info", "child"); });
    file.write("Log", "Info", "parent again");
    EXPECT_EQ(TextsIn(m_path), (Texts{"Info:parent", "Info:child", "Info:parent again"}));
}

// If each waited, they would take longer than a test may.
TEST_F(CNxT120TraceFileTest, OnlyTheFirstRecordWaitsForALockThatIsKept) {
    CNxT120TraceFile file(m_path.c_str(), 0, 1, 1);
    // Locks of an open file and of a process exclude each other, also within one process.
    struct flock lock {};
    lock.l_type = F_WRLCK;
    const int holder = open(m_path.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(fcntl(holder, F_OFD_SETLK, &lock), 0);
    for (int i = 0; i < 1000; ++i) {
        file.write("Log", "Info", "lost");
    }
    // Emptying it would need the lock, too.
    EXPECT_FALSE(CNxT120TraceFile(m_path.c_str(), 0, 1, 1).is_open());
    close(holder);
    file.write("Log", "Info", "0");
    EXPECT_EQ(TextsIn(m_path), (Texts{"Warning:1000 records lost", "Info:0"}));
}

}  // namespace
