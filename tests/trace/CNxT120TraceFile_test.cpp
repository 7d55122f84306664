#include <fcntl.h>
#include <nx/trace/CNxT120TraceFile.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <utility>

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
    // Forty records of many lengths into a file of that size, and what it must hold after each.
    void CompareWithModel(size_t maxSize, bool isShared, int lines, const std::string& stamp) {
        CNxT120TraceFile file(m_path.c_str(), maxSize, isShared ? 1 : 0, 1);
        ASSERT_EQ(file.refresh_settings(maxSize, lines), 1);
        std::string model = HeaderOf(HEADER_SIZE);
        size_t offset = HEADER_SIZE;
        std::string waiting;
        bool isWrapped = false;
        for (int i = 1; i <= 40; ++i) {
            const std::string text(i % 11 == 5 ? static_cast<size_t>(i) * 7 : 1, 'x');
            const bool isPrefixed = i % 3 != 0;
            file.write("Log", isPrefixed ? "Info" : nullptr, text.c_str());
            waiting += stamp + (isPrefixed ? "Info:" : "") + text + "\n";
            if (isShared || i % lines == 0) {
                const bool isFull = maxSize != 0 && maxSize <= offset;
                model.resize(isFull ? offset : model.size());
                isWrapped = isWrapped || (isFull && !isShared);
                offset = isFull && isShared ? HEADER_SIZE : offset;
                model.replace(offset, waiting.size() + MARKER.size(), waiting + MARKER);
                offset += waiting.size();
                model.replace(0, HEADER_SIZE, HeaderOf(offset));
                waiting.clear();
            }
            const std::string actual = ReadWhole(m_path);
            ASSERT_EQ(actual.substr(0, HEADER_SIZE), model.substr(0, HEADER_SIZE));
            ASSERT_EQ(Masked(actual), Masked(model)) << "after " << i;
            ASSERT_EQ(file.is_wrapped(), isWrapped);
        }
    }

    const CTempFolder m_folder;
    std::string m_path = m_folder.Path("trace.log");
};

TEST_F(CNxT120TraceFileTest, HoldsExactlyItsBytesAtEverySizeLimitAroundTheWrapAndWithoutALimit) {
    CNxT120TraceFile(m_path.c_str(), 0, 0, 1).write(nullptr, nullptr, "");
    const std::string probe = ReadWhole(m_path);
    ASSERT_EQ(TextsIn(m_path), Texts{""});
    const std::string stamp =
        probe.substr(HEADER_SIZE, probe.find('\n', HEADER_SIZE) - HEADER_SIZE);
    const size_t wrap = HEADER_SIZE + 3 * (stamp.size() + 7);
    for (const size_t maxSize : {0UL, wrap - 2, wrap - 1, wrap, wrap + 1, wrap + 2}) {
        SCOPED_TRACE(maxSize);
        CompareWithModel(maxSize, true, 1, stamp);
        CompareWithModel(maxSize, false, 1, stamp);
        CompareWithModel(maxSize, false, 7, stamp);
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
    for (const auto& [mode, expected] : {std::pair(-1, 0666), {0640, 0640}, {-1, 0640}}) {
        CNxT120TraceFile::SetMode(mode);
        if (mode == 0640) {
            std::filesystem::remove(m_path);
        }
        CNxT120TraceFile(m_path.c_str(), 0, 1, 1).write("Log", "Info", "x");
        EXPECT_EQ(ModeOf(m_path), expected);
    }
    const std::string own = m_folder.Path("own");
    CNxT120TraceFile(own.c_str(), 0, 0, 1).write("Log", "Info", "x");
    EXPECT_EQ(ModeOf(own), 0600);
    umask(umaskBefore);
}

// In one that no manager owns, and that nothing flushes before the fork.
TEST_F(CNxT120TraceFileTest, AParentAndItsChildMayTakeTurnsInAPrivateFile) {
    CNxT120TraceFile file(m_path.c_str(), 0, 0, 1);
    file.write("Log", "Info", "parent");
    const pid_t child = fork();
    if (child == 0) {
        file.write("Log", "Info", "child");
        _exit(0);
    }
    waitpid(child, nullptr, 0);
    file.write("Log", "Info", "parent again");
    EXPECT_EQ(TextsIn(m_path), (Texts{"Info:parent", "Info:child", "Info:parent again"}));
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
    ~CLockHolder() { KillAndWait(m_pid); }
    CLockHolder(const CLockHolder&) = delete;
    CLockHolder& operator=(const CLockHolder&) = delete;

private:
    pid_t m_pid;
};

// If each waited, they would take longer than a test may.
TEST_F(CNxT120TraceFileTest, OnlyTheFirstRecordWaitsForALockThatIsKept) {
    CNxT120TraceFile file(m_path.c_str(), 0, 1, 1);
    {
        const CLockHolder holder(m_path);
        for (int i = 0; i < 1000; ++i) {
            file.write("Log", "Info", "lost");
        }
        // Emptying it would need the lock, too.
        EXPECT_FALSE(CNxT120TraceFile(m_path.c_str(), 0, 1, 1).is_open());
    }
    file.write("Log", "Info", "0");
    EXPECT_EQ(TextsIn(m_path), (Texts{"Warning:1000 records lost", "Info:0"}));
}

}  // namespace
