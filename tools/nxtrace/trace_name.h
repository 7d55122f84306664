// The names of trace files: PROCESS_KIND_MMDDYYYY_SEQUENCE.PID.log, and finding them in a folder.
#pragma once

#include <string>
#include <string_view>
#include <vector>

struct CTraceName {
    // FolderOf the path, filled in by who compares files of several folders: another one is another
    // machine's as a rule, where the same process id means nothing.
    std::string m_folder;
    std::string m_process;
    // "info", "warning", "error" or "fatal".
    std::string m_kind;
    // YYYYMMDD as a number.
    long m_date = 0;
    long m_sequence = 0;
    long m_pid = 0;

    // Of one process and kind: files that follow one another.
    bool IsSameSeries(const CTraceName& other) const {
        return m_process == other.m_process && m_kind == other.m_kind && m_pid == other.m_pid &&
               m_folder == other.m_folder;
    }
    bool IsLaterThan(const CTraceName& other) const {
        return m_date != other.m_date ? m_date > other.m_date : m_sequence > other.m_sequence;
    }
};

// Whether the path's last part is such a name; then all but the folder is filled in.
bool ParseTraceName(std::string_view path, CTraceName& name);

// The folder of a path, written in one way only, whatever way led to it.
std::string FolderOf(std::string_view path);

// The paths of the trace files in a folder, sorted by name: all of them, or those of one process,
// by their names alone. False with errno when the folder cannot be read.
bool FindTraceFiles(const std::string& folder, std::string_view process,
                    std::vector<std::string>& paths);
