#include "trace_record.h"

#include <algorithm>
#include <cassert>
#include <cctype>
#include <cstdio>
#include <cstring>

namespace {

constexpr std::string_view ZERO_BYTE("\0", 1);
// The longest head of a record has 68 bytes: two numbers of eleven characters.
constexpr size_t MAX_HEAD = 80;

struct CHead {
    int month, day, year, hour, minute, second, ms;
    long pid, tid;
    size_t length;
};

bool IsCalendar(const CHead& h) {
    return h.month >= 1 && h.month <= 12 && h.day >= 1 && h.day <= 31 && h.year >= 1900 &&
           h.hour >= 0 && h.hour <= 23 && h.minute >= 0 && h.minute <= 59 && h.second >= 0 &&
           h.second <= 60 && h.ms >= 0;
}

bool ParseHead(std::string_view line, CHead& h) {
    // Most lines that are no record fail here, without a scan.
    if (line.size() < TRACE_HEADER_SIZE || line[0] != '[' || line[3] != '/' || line[6] != '/') {
        return false;
    }
    char text[MAX_HEAD + 1];
    text[line.copy(text, MAX_HEAD)] = '\0';
    int length = 0;
    const int count =
        std::sscanf(text, "[%2d/%2d/%4d %2d:%2d:%2d.%3d pid=%11ld tid=%11ld]%n", &h.month, &h.day,
                    &h.year, &h.hour, &h.minute, &h.second, &h.ms, &h.pid, &h.tid, &length);
    assert(length >= 0 && static_cast<size_t>(length) <= MAX_HEAD);
    h.length = static_cast<size_t>(length);
    return count == 9 && length > 0 && IsCalendar(h);
}

// The level's name in front of the first ':' when it looks like one.
std::string_view LevelOf(std::string_view text) {
    const auto isName = [](char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0; };
    const auto end = std::find_if_not(text.begin(), text.end(), isName);
    const auto length = static_cast<size_t>(end - text.begin());
    return length < text.size() && text[length] == ':' ? text.substr(0, length)
                                                       : std::string_view();
}

// The next line, which is taken off the piece, without its line end and zero bytes before it.
// Zeros stand where a file was extended and nothing written.
std::string_view TakeLine(std::string_view& piece) {
    const size_t end = std::min(piece.find('\n'), piece.size());
    std::string_view line = piece.substr(0, end);
    piece.remove_prefix(std::min(end + 1, piece.size()));
    const size_t zeros = std::min(line.find_first_not_of(ZERO_BYTE), line.size());
    line.remove_prefix(zeros);
    return line;
}

size_t FindMarker(std::string_view content) {
    size_t at = content.find(TRACE_MARKER);
    while (at != std::string_view::npos && at > 0 && content[at - 1] != '\n') {
        at = content.find(TRACE_MARKER, at + 1);
    }
    return at;
}

// After the header; without a sound one, perhaps at the very beginning.
size_t FirstRecord(std::string_view content, bool hasHeader) {
    CTraceRecord record;
    const bool isAfterDamage = content.size() > TRACE_HEADER_SIZE &&
                               ParseRecord(content.substr(TRACE_HEADER_SIZE), record);
    return hasHeader || isAfterDamage ? TRACE_HEADER_SIZE : 0;
}

}  // namespace

std::int64_t CalendarMs(int year, int month, int day, int hour, int minute, int second, int ms) {
    // Every month counts 31 days: the order is right, and distances within a day are.
    const std::int64_t days = (std::int64_t{year} * 12 + month) * 31 + day;
    return (((days * 24 + hour) * 60 + minute) * 60 + second) * 1000 + ms;
}

bool ParseRecord(std::string_view line, CTraceRecord& record) {
    CHead h{};
    if (!ParseHead(line, h)) {
        return false;
    }
    record.m_time = CalendarMs(h.year, h.month, h.day, h.hour, h.minute, h.second, h.ms);
    record.m_pid = h.pid;
    record.m_tid = h.tid;
    record.m_line = line;
    record.m_text = line.substr(std::min(h.length + 1, line.size()));
    record.m_level = LevelOf(record.m_text);
    if (!record.m_level.empty()) {
        record.m_text.remove_prefix(record.m_level.size() + 1);
    }
    return true;
}

void SplitRecords(std::string_view piece, std::vector<CTraceRecord>& records) {
    bool isInRecord = false;
    while (!piece.empty()) {
        const std::string_view line = TakeLine(piece);
        CTraceRecord record;
        if (ParseRecord(line, record)) {
            records.push_back(record);
            isInRecord = true;
        } else if (line == TRACE_MARKER.substr(0, TRACE_MARKER.size() - 2)) {
            isInRecord = false;
        } else if (isInRecord) {
            CTraceRecord& last = records.back();
            assert(line.end() >= last.m_line.end());
            const auto growth = static_cast<size_t>(line.end() - last.m_line.end());
            last.m_line = {last.m_line.data(), last.m_line.size() + growth};
            last.m_text = {last.m_text.data(), last.m_text.size() + growth};
        }
    }
}

size_t ParseTraceHeader(std::string_view content) {
    const std::string_view header = content.substr(0, TRACE_HEADER_SIZE);
    const size_t digits = std::min(header.find_first_not_of("0123456789"), header.size());
    const bool isHeader = digits > 0 && digits < 19 &&
                          header.find_first_not_of(' ', digits) == header.size() - 1 &&
                          header.size() == TRACE_HEADER_SIZE && header.back() == '\n';
    if (!isHeader) {
        return 0;
    }
    size_t end = 0;
    for (const char c : header.substr(0, digits)) {
        end = end * 10 + static_cast<size_t>(c - '0');
    }
    return end;
}

bool ReadLayout(std::string_view content, CTraceLayout& layout) {
    layout = {TRACE_HEADER_SIZE, {}, {}};
    if (content.empty()) {
        return true;
    }
    const size_t end = ParseTraceHeader(content);
    const bool isInside = end >= TRACE_HEADER_SIZE && end <= content.size();
    const bool isSound = isInside && content.substr(end, TRACE_MARKER.size()) == TRACE_MARKER;
    const size_t marker = isSound ? end : FindMarker(content);
    const size_t start = FirstRecord(content, end != 0);
    if (marker != std::string_view::npos) {
        layout.m_end = std::max(marker, start);
        assert(layout.m_end <= content.size());
        layout.m_newer = content.substr(start, layout.m_end - start);
        layout.m_older = content.substr(marker + TRACE_MARKER.size());
        return true;
    }
    // No marker: nothing tells newer from older but the header, if that. Where it points, a record
    // may have been half written when its writer was killed.
    layout.m_end = isInside ? end : content.size();
    assert(start <= layout.m_end && layout.m_end <= content.size());
    layout.m_newer = content.substr(start, layout.m_end - start);
    std::vector<CTraceRecord> records;
    SplitRecords(content.substr(layout.m_end), records);
    if (records.size() > 1) {
        layout.m_older =
            content.substr(static_cast<size_t>(records[1].m_line.data() - content.data()));
    }
    SplitRecords(content, records);
    return end != 0 || !records.empty();
}
