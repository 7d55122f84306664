#include <dirent.h>
#include <fcntl.h>
#include <nx/process/CDescriptor.h>
#include <nx/process/CNxProcessInfo.h>
#include <nx/process/CatchBadAlloc.h>
#include <nx/process/proc_text.h>
#include <nx/process/read_descriptor.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <string_view>

namespace {

constexpr unsigned long c_firstGuess = 4096;
constexpr unsigned long c_longest = 1UL << 24;  // twice what the kernel takes as arguments
constexpr size_t c_cutLength = 15;

// The process has ended: ENOENT for its folder, ESRCH for what was open in it. Or it is hidden.
NxResult ResultOfErrno() {
    const bool isGone = errno == ENOENT || errno == ESRCH;
    const bool isHidden = errno == EPERM || errno == EACCES;
    return isGone || isHidden ? NX_ERROR_NOT_FOUND : NX_ERROR_FAILURE;
}

// The folder stands for this very process: with the process it ends, whoever gets the id.
NxResult OpenFolder(pid_t pid, CDescriptor& folder) {
    if (pid < 1) {
        return NX_ERROR_INVALID_ARG;
    }
    const std::string path = "/proc/" + std::to_string(pid);
    folder = CDescriptor(open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    return folder.IsOpen() ? NX_OK : ResultOfErrno();
}

NxResult ReadText(const CDescriptor& folder, const char* name, CBlockOwner& text) {
    const CDescriptor file(openat(folder.Get(), name, O_RDONLY | O_CLOEXEC));
    if (!file.IsOpen()) {
        return ResultOfErrno();
    }
    const NxResult result = ReadToEnd(file.Get(), c_firstGuess, c_longest, text);
    return result == NX_ERROR_FAILURE ? ResultOfErrno() : result;
}

std::string_view View(const CBlockOwner& text) {
    return {text->GetReadPtr(), text->GetLength()};
}

NxResult ReadStat(const CDescriptor& folder, CProcStat& stat) {
    CBlockOwner text;
    const NxResult result = ReadText(folder, "stat", text);
    if (result != NX_OK) {
        return result;
    }
    return ParseProcStat(View(text), stat) ? NX_OK : NX_ERROR_UNEXPECTED;
}

// The whole of a name that the kernel may have cut.
CNxString CompleteName(const CNxString& name, const std::vector<CNxString>& commandLine) {
    if (name.size() != c_cutLength || commandLine.empty()) {
        return name;
    }
    const size_t slash = commandLine[0].rfind('/');
    const CNxString program =
        slash == CNxString::npos ? commandLine[0] : commandLine[0].substr(slash + 1);
    return program.compare(0, c_cutLength, name) == 0 ? program : name;
}

struct CFolderCloser {
    void operator()(DIR* folder) const { closedir(folder); }
};

// Calls `use` with the id of every process there is, as long as it returns NX_OK.
template <class Use>
NxResult ForEachPid(const Use& use) {
    CDescriptor proc(open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const std::unique_ptr<DIR, CFolderCloser> folder(proc.IsOpen() ? fdopendir(proc.Get())
                                                                   : nullptr);
    if (folder == nullptr) {
        return NX_ERROR_FAILURE;
    }
    static_cast<void>(proc.Release());  // it is the folder's now
    errno = 0;
    while (const dirent* const entry = readdir(folder.get())) {
        pid_t pid = 0;
        const char* const end = entry->d_name + std::strlen(entry->d_name);
        const auto read = std::from_chars(entry->d_name, end, pid);
        if (read.ec == std::errc() && read.ptr == end) {
            const NxResult result = use(pid);
            if (result != NX_OK) {
                return result;
            }
        }
        errno = 0;
    }
    return errno == 0 ? NX_OK : NX_ERROR_FAILURE;
}

CNxTimeValue Now(clockid_t clock) {
    timespec now{};
    const int result = clock_gettime(clock, &now);
    assert(result == 0);
    static_cast<void>(result);  // in builds without assertions
    return {now.tv_sec, now.tv_nsec / 1000};
}

}  // namespace

NxResult CNxProcessInfo::Read(pid_t pid, CNxProcessInfo& info) {
    return CatchBadAlloc([&] {
        CDescriptor folder;
        CProcStat stat;
        CBlockOwner arguments;
        NxResult result = OpenFolder(pid, folder);
        if (result == NX_OK) {
            result = ReadStat(folder, stat);
        }
        if (result == NX_OK) {
            result = ReadText(folder, "cmdline", arguments);
        }
        if (result != NX_OK) {
            return result;
        }
        CNxProcessInfo read;
        read.m_commandLine = SplitCommandLine(View(arguments));
        read.m_name = CompleteName(stat.m_name, read.m_commandLine);
        read.m_pid = pid;
        read.m_parent = stat.m_parent;
        read.m_state = stat.m_state;
        read.m_startTicks = stat.m_startTicks;
        read.m_residentBytes =
            stat.m_residentPages * static_cast<unsigned long>(sysconf(_SC_PAGESIZE));
        read.m_threads = stat.m_threads;
        info = std::move(read);
        return NX_OK;
    });
}

NxResult CNxProcessInfo::List(std::vector<CNxProcessInfo>& infos) {
    return CatchBadAlloc([&] {
        return ForEachPid([&](pid_t pid) {
            CNxProcessInfo info;
            const NxResult result = Read(pid, info);
            if (result == NX_OK) {
                infos.push_back(std::move(info));
            }
            return result == NX_ERROR_NOT_FOUND ? NX_OK : result;
        });
    });
}

NxResult CNxProcessInfo::FindByName(const CNxString& name, std::vector<CNxProcessInfo>& infos) {
    return CatchBadAlloc([&] {
        std::vector<CNxProcessInfo> all;
        const NxResult result = List(all);
        if (result != NX_OK) {
            return result;
        }
        const size_t before = infos.size();
        for (CNxProcessInfo& info : all) {
            if (info.m_name == name) {
                infos.push_back(std::move(info));
            }
        }
        return infos.size() > before ? NX_OK : NX_ERROR_NOT_FOUND;
    });
}

bool CNxProcessInfo::IsAlive() const {
    CProcStat stat;
    const NxResult result = CatchBadAlloc([&] {
        CDescriptor folder;
        const NxResult opened = OpenFolder(m_pid, folder);
        return opened == NX_OK ? ReadStat(folder, stat) : opened;
    });
    // Where only the first thread has ended, the process says Z and goes on with the others.
    const bool hasEnded = (stat.m_state == 'Z' || stat.m_state == 'X') && stat.m_threads <= 1;
    return result == NX_OK && stat.m_startTicks == m_startTicks && !hasEnded;
}

CNxTimeValue CNxProcessInfo::GetStartTime() const {
    const auto ticks = static_cast<unsigned long>(sysconf(_SC_CLK_TCK));
    const CNxTimeValue sinceBoot(static_cast<long>(m_startTicks / ticks),
                                 static_cast<long>(m_startTicks % ticks * 1000000 / ticks));
    return Now(CLOCK_REALTIME) - Now(CLOCK_BOOTTIME) + sinceBoot;
}
