#include "trace_name.h"

#include <dirent.h>
#include <regex.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <new>

namespace {

constexpr size_t NAME_GROUPS = 8;

const regex_t& NamePattern() {
    static const regex_t* const s_pattern = [] {
        static regex_t s_regex;
        if (regcomp(&s_regex,
                    "^(.+)_(info|warning|error|fatal)_([0-9]{2})([0-9]{2})([0-9]{4})"
                    "_([0-9]{1,10})\\.([0-9]{1,10})\\.log$",
                    REG_EXTENDED) != 0) {
            throw std::bad_alloc();
        }
        return &s_regex;
    }();
    return *s_pattern;
}

// All but the folder.
CTraceName ParseTraceName(const std::string& file) {
    CTraceName name;
    regmatch_t groups[NAME_GROUPS];
    if (regexec(&NamePattern(), file.c_str(), NAME_GROUPS, groups, 0) != 0) {
        return name;
    }
    const auto text = [&](size_t i) {
        return file.substr(static_cast<size_t>(groups[i].rm_so),
                           static_cast<size_t>(groups[i].rm_eo - groups[i].rm_so));
    };
    const auto number = [&](size_t i) { return std::strtol(text(i).c_str(), nullptr, 10); };
    name.m_process = text(1);
    name.m_kind = text(2);
    name.m_date = (number(5) * 100 + number(3)) * 100 + number(4);
    name.m_sequence = number(6);
    name.m_pid = number(7);
    return name;
}

std::string FolderOf(std::string_view path) {
    const size_t slash = path.rfind('/');
    const std::string folder(
        slash == std::string_view::npos ? "." : path.substr(0, std::max<size_t>(slash, 1)));
    std::error_code error;
    const std::string place = std::filesystem::weakly_canonical(folder, error).string();
    return error ? folder : place;
}

}  // namespace

CTraceName NameOfTraceFile(std::string_view path) {
    CTraceName name = ParseTraceName(std::string(path.substr(path.rfind('/') + 1)));
    name.m_folder = FolderOf(path);
    return name;
}

bool FindTraceFiles(const std::string& folder, std::string_view process,
                    std::vector<std::string>& paths) {
    DIR* const dir = opendir(folder.c_str());
    if (dir == nullptr) {
        return false;
    }
    while (const dirent* const entry = readdir(dir)) {
        const CTraceName name = ParseTraceName(entry->d_name);
        if (name.IsGiven() && (process.empty() || name.m_process == process)) {
            paths.push_back(folder + "/" + entry->d_name);
        }
    }
    closedir(dir);
    std::sort(paths.begin(), paths.end());
    return true;
}
