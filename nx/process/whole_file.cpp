#include <fcntl.h>
#include <nx/foundation/CKeptErrno.h>
#include <nx/foundation/has_zero_byte.h>
#include <nx/foundation/write_parts.h>
#include <nx/process/CDescriptor.h>
#include <nx/process/CatchBadAlloc.h>
#include <nx/process/read_descriptor.h>
#include <nx/process/whole_file.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cassert>
#include <numeric>
#include <string>

namespace {

constexpr mode_t c_permissions = 07777;
constexpr unsigned long c_firstGuess = 16384;  // for files that call themselves empty

NxResult ResultOfErrno() {
    return errno == ENOENT ? NX_ERROR_NOT_FOUND : NX_ERROR_FAILURE;
}

bool IsPath(const CNxString& path) {
    return !path.empty() && !HasZeroByte(path);
}

// Past the first `count` blocks that hold something.
const CNxMessageBlock* Skip(const CNxMessageBlock* block, unsigned long count) {
    while (count > 0) {
        assert(block != nullptr);
        count -= block->GetLength() != 0 ? 1 : 0;
        block = block->GetNext();
    }
    return block;
}

bool WriteChain(int fd, const CNxMessageBlock* block) {
    constexpr unsigned long c_maxEntries = 64;
    off_t end = 0;
    while (block != nullptr) {
        iovec entries[c_maxEntries];
        const unsigned long count = block->FillIov(entries, c_maxEntries);
        if (count == 0) {
            break;
        }
        const size_t size =
            std::accumulate(entries, entries + count, size_t{0},
                            [](size_t sum, const iovec& entry) { return sum + entry.iov_len; });
        if (WriteParts(fd, entries, static_cast<int>(count), end) != size) {
            return false;
        }
        end += static_cast<off_t>(size);
        block = Skip(block, count);
    }
    return true;
}

// The file that is to take the place of another in its folder; removed unless it has.
class CReplacement {
public:
    CReplacement(int folder, std::string name) : m_folder(folder), m_name(std::move(name)) {}
    ~CReplacement() {
        if (m_file.IsOpen() && !m_replaced) {
            const CKeptErrno keptErrno;
            static_cast<void>(unlinkat(m_folder, m_ownName.c_str(), 0));  // no one to tell
        }
    }
    CReplacement(const CReplacement&) = delete;
    CReplacement& operator=(const CReplacement&) = delete;

    [[nodiscard]] bool Create(mode_t mode) {
        // What has the name already was left by another process that had this one's id.
        do {
            static std::atomic<unsigned int> s_number{0};
            m_ownName = m_name + "." + std::to_string(getpid()) + "-" +
                        std::to_string(s_number.fetch_add(1, std::memory_order_relaxed)) + ".tmp";
            m_file = CDescriptor(
                openat(m_folder, m_ownName.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
        } while (!m_file.IsOpen() && errno == EEXIST);
        return m_file.IsOpen();
    }
    [[nodiscard]] bool Fill(const CNxMessageBlock& chain) const {
        return WriteChain(m_file.Get(), &chain) && fsync(m_file.Get()) == 0;
    }
    [[nodiscard]] bool SetMode(mode_t mode) const { return fchmod(m_file.Get(), mode) == 0; }
    [[nodiscard]] bool TakePlace() {
        m_replaced = renameat(m_folder, m_ownName.c_str(), m_folder, m_name.c_str()) == 0;
        return m_replaced;
    }

private:
    const int m_folder;
    const std::string m_name;
    std::string m_ownName;
    CDescriptor m_file;
    bool m_replaced = false;
};

NxResult WriteInFolder(int folder, const std::string& name, const CNxMessageBlock& chain,
                       mode_t mode) {
    struct stat old {};
    const bool isThere = fstatat(folder, name.c_str(), &old, AT_SYMLINK_NOFOLLOW) == 0;
    if (!isThere && errno != ENOENT) {
        return NX_ERROR_FAILURE;
    }
    if (isThere && !S_ISREG(old.st_mode)) {
        return NX_ERROR_INVALID_ARG;
    }
    CReplacement file(folder, name);
    // Nobody else reads it before it has the permissions of the old one.
    if (!file.Create(isThere ? 0600 : mode) ||
        (isThere && !file.SetMode(old.st_mode & c_permissions)) || !file.Fill(chain) ||
        !file.TakePlace()) {
        return NX_ERROR_FAILURE;
    }
    return fsync(folder) == 0 ? NX_OK : NX_ERROR_PARTIAL_DATA;
}

}  // namespace

NxResult cnx_read_file(const CNxString& path, CNxMessageBlock*& out, unsigned long maxSize) {
    if (!IsPath(path)) {
        return NX_ERROR_INVALID_ARG;
    }
    // Without waiting: there is no writer to a pipe that will be refused.
    const CDescriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat status {};
    if (!file.IsOpen() || fstat(file.Get(), &status) != 0) {
        return ResultOfErrno();
    }
    if (!S_ISREG(status.st_mode)) {
        return NX_ERROR_INVALID_ARG;
    }
    const auto size = static_cast<unsigned long>(status.st_size);
    CBlockOwner block;
    const NxResult result =
        ReadToEnd(file.Get(), size == 0 ? std::min(c_firstGuess, maxSize) : size, maxSize, block);
    if (result == NX_OK) {
        out = block.release();
    }
    return result;
}

NxResult cnx_write_file(const CNxString& path, const CNxMessageBlock& chain, mode_t mode) {
    const size_t slash = path.rfind('/');
    if (!IsPath(path) || slash == path.size() - 1) {
        return NX_ERROR_INVALID_ARG;
    }
    return CatchBadAlloc([&] {
        const CNxString folderPath = slash == CNxString::npos ? "." : path.substr(0, slash + 1);
        const CDescriptor folder(open(folderPath.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!folder.IsOpen()) {
            return ResultOfErrno();
        }
        const CNxString name = slash == CNxString::npos ? path : path.substr(slash + 1);
        return WriteInFolder(folder.Get(), name.GetRawData(), chain, mode);
    });
}
