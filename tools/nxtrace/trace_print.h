// What becomes of the records that are shown: lines, JSON or counts.
#pragma once

#include <cstdint>
#include <cstdio>
#include <deque>
#include <map>
#include <string>

#include "trace_name.h"
#include "trace_record.h"

// "2026-11-21T09:30:15.250" for the calendar milliseconds of a record.
std::string CalendarText(std::int64_t time);

enum class EOutput {
    // As they stand in the file.
    PLAIN,
    // For a terminal: warnings, errors and fatal records in colour, control characters escaped,
    // because a text may come from anywhere.
    TERMINAL,
    TERMINAL_WITHOUT_COLOUR,
    // One object a line: time, level (null when there is none), pid, tid, text.
    JSON,
};

void PrintRecord(FILE* out, EOutput output, const CTraceRecord& record);

// Counts per minute and level.
class CTraceStat {
public:
    void Add(const CTraceRecord& record);
    // A table: a line per minute, a column per level, sums below and at the right.
    void Print(FILE* out) const;

private:
    using CCounts = std::map<std::string, unsigned long, std::less<>>;
    std::map<std::int64_t, CCounts> m_minutes;
    CCounts m_sums;
};

// Finds the second copies of warnings, errors and fatal records: the process writes them to a file
// of their own besides the info file, and a moment later. Of either side the last 16384 records
// are remembered that have not met their copy: thousands may share a millisecond.
class CTraceDuplicates {
public:
    // Whether the same record was seen before in another kind of file of the same process and
    // folder.
    [[nodiscard]] bool IsSecond(const CTraceRecord& record, const CTraceName& file);

private:
    struct CSeen {
        std::int64_t m_time;
        long m_tid;
        std::string m_folder;
        std::string m_process;
        long m_pid;
        std::string m_levelAndText;
    };
    // From info files, and from the others.
    std::deque<CSeen> m_seen[2];
};
