#include <nx/foundation/own_lines.h>
#include <nx/process/process_path.h>

#include <unistd.h>

#include <climits>
#include <cstdio>

CNxString GetProcessName() {
    char link[32];
    std::snprintf(link, sizeof(link), "/proc/%d/exe", getpid());
    char path[PATH_MAX];
    const ssize_t length = readlink(link, path, sizeof(path));
    return length > 0 ? CNxString(path, static_cast<size_t>(length)) : CNxString();
}

CNxString GetBinHomePath() {
    const CNxString executable = GetProcessName();
    const size_t folderEnd = executable.rfind('/');
    if (folderEnd == CNxString::npos) {
        return {};
    }
    const CNxString folder = executable.substr(0, folderEnd);
    const size_t nameSlash = folder.rfind('/');
    const bool isBin = nameSlash != CNxString::npos && folder.substr(nameSlash + 1) == "bin";
    if (!isBin) {
        SayOnStdout("Warning::%s,not bin path\n", folder.c_str());
    }
    const CNxString home = isBin ? folder.substr(0, nameSlash) : folder;
    return home.empty() ? CNxString("/") : home;
}
