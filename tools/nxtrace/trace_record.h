// Trace files taken apart: the records in the bytes of a file, oldest first.
//
// A trace file is "%-31ld\n" with the offset of the marker, then records, then the marker line.
// Records after the marker are older: they were written before a shared file began again at
// offset 32, and the first of them may have lost its beginning.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

constexpr size_t TRACE_HEADER_SIZE = 32;
constexpr std::string_view TRACE_MARKER =
    "************************* Current Trace Point *************************\n\n";

// One record; its texts point into the bytes it was found in.
struct CTraceRecord {
    // Milliseconds of the local calendar, as if there were no time zones: only to compare.
    std::int64_t m_time = 0;
    long m_pid = 0;
    long m_tid = 0;
    // "Info" of "Info:text"; empty for a record without level.
    std::string_view m_level;
    // May hold line ends: a text of several lines is one record.
    std::string_view m_text;
    // All of it, without the line end after it.
    std::string_view m_line;
};

// Milliseconds of the calendar for a date and time that need not be checked before.
std::int64_t CalendarMs(int year, int month, int day, int hour, int minute, int second, int ms);

// Whether the line begins like a record; then fills it, the line being all of it.
[[nodiscard]] bool ParseRecord(std::string_view line, CTraceRecord& record);

// Appends the records of a piece of a file. What stands before the first one is dropped: it is the
// rest of a record that was overwritten, or damage.
void SplitRecords(std::string_view piece, std::vector<CTraceRecord>& records);

// Where the records of a file stand.
struct CTraceLayout {
    // What the header says, or the marker's offset when the header is damaged.
    size_t m_end = 0;
    // Older than the rest; empty in a file that has not begun again.
    std::string_view m_older;
    std::string_view m_newer;
};

// The header's offset, or 0 when the first 32 bytes are no header.
[[nodiscard]] size_t ParseTraceHeader(std::string_view content);

// False when the bytes are not those of a trace file: neither header nor marker nor record. An
// empty file is one without records. A header that does not point at the marker is not believed:
// the marker is searched.
[[nodiscard]] bool ReadLayout(std::string_view content, CTraceLayout& layout);
