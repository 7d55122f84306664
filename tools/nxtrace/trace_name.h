// The names of trace files: PROCESS_KIND_MMDDYYYY_SEQUENCE.PID.log, and finding them in a folder.
#pragma once

#include <string>
#include <string_view>
#include <vector>

struct CTraceName {
    // Where the file is, written in one way only, whatever path led to it: another folder is
    // another machine's as a rule, where the same process id means nothing.
    std::string m_folder;
    std::string m_process;
    // "info", "warning", "error" or "fatal".
    std::string m_kind;
    // YYYYMMDD as a number.
    long m_date = 0;
    long m_sequence = 0;
    long m_pid = 0;

    // Whether the file has such a name; of another one only the folder is known.
    bool IsGiven() const { return !m_kind.empty(); }
    // Of one process and kind: files that follow one another.
    bool IsSameSeries(const CTraceName& other) const {
        return m_process == other.m_process && m_kind == other.m_kind && m_pid == other.m_pid &&
               m_folder == other.m_folder;
    }
    bool IsLaterThan(const CTraceName& other) const {
        return m_date != other.m_date ? m_date > other.m_date : m_sequence > other.m_sequence;
    }
};

// The name that the path of a file ends in.
CTraceName NameOfTraceFile(std::string_view path);

// The paths of the trace files in a folder, sorted by name: all of them, or those of one process,
// by their names alone. False with errno when the folder cannot be read.
[[nodiscard]] bool FindTraceFiles(const std::string& folder, std::string_view process,
                                  std::vector<std::string>& paths);
