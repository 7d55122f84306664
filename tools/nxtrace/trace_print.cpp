#include "trace_print.h"

#include <algorithm>
#include <cassert>
#include <cstdlib>
#include <string_view>

namespace {

constexpr std::int64_t MS_PER_MINUTE = 60'000;
constexpr std::int64_t MS_PER_DAY = 24L * 60 * MS_PER_MINUTE;
constexpr std::int64_t DUPLICATE_MS = 20;
constexpr size_t MAX_SEEN = 16384;
constexpr char RESET[] = "\033[0m";

const char* ColourOf(std::string_view level) {
    return level == "Fatal"     ? "\033[1;31m"
           : level == "Error"   ? "\033[31m"
           : level == "Warning" ? "\033[33m"
                                : "";
}

bool IsContinuation(std::string_view text, size_t at) {
    return at < text.size() && (static_cast<unsigned char>(text[at]) & 0xC0U) == 0x80U;
}

// The length of the UTF-8 character that the text begins with; 0 when it is none.
size_t Utf8Length(std::string_view text) {
    assert(!text.empty());
    const auto first = static_cast<unsigned char>(text[0]);
    const auto second = static_cast<unsigned char>(text.size() > 1 ? text[1] : '\0');
    const size_t length = first < 0x80                     ? 1
                          : first >= 0xC2 && first <= 0xDF ? 2
                          : first >= 0xE0 && first <= 0xEF ? 3
                          : first >= 0xF0 && first <= 0xF4 ? 4
                                                           : 0;
    for (size_t i = 1; i < length; ++i) {
        if (!IsContinuation(text, i)) {
            return 0;
        }
    }
    // Longer than needed, a surrogate, or beyond the last code point.
    const bool isBad = (first == 0xE0 && second < 0xA0) || (first == 0xED && second > 0x9F) ||
                       (first == 0xF0 && second < 0x90) || (first == 0xF4 && second > 0x8F);
    return isBad ? 0 : length;
}

// Of UTF-8 text; terminals take U+0080 to U+009F for commands, too.
bool IsControl(std::string_view c) {
    return (c.size() == 1 && static_cast<unsigned char>(c[0]) < ' ' && c != "\n" && c != "\t") ||
           c == "\x7f" ||
           (c.size() == 2 && c[0] == '\xC2' && static_cast<unsigned char>(c[1]) < 0xA0);
}

void PrintEscaped(FILE* out, std::string_view text) {
    while (!text.empty()) {
        const size_t length = Utf8Length(text);
        const std::string_view c = text.substr(0, std::max<size_t>(length, 1));
        if (length > 0 && !IsControl(c)) {
            std::fwrite(c.data(), 1, c.size(), out);
        } else {
            for (const char byte : c) {
                std::fprintf(out, "\\x%02x",
                             static_cast<unsigned>(static_cast<unsigned char>(byte)));
            }
        }
        text.remove_prefix(c.size());
    }
}

void PrintJsonString(FILE* out, std::string_view text) {
    std::fputc('"', out);
    while (!text.empty()) {
        const size_t length = Utf8Length(text);
        const char c = text[0];
        if (length == 0) {
            std::fputs("\\ufffd", out);
        } else if (c == '"' || c == '\\') {
            std::fprintf(out, "\\%c", c);
        } else if (length == 1 && static_cast<unsigned char>(c) < ' ') {
            std::fprintf(out, "\\u%04x", static_cast<unsigned>(c));
        } else {
            std::fwrite(text.data(), 1, length, out);
        }
        text.remove_prefix(std::max<size_t>(length, 1));
    }
    std::fputc('"', out);
}

void PrintJson(FILE* out, const CTraceRecord& record) {
    std::fprintf(out, "{\"time\":\"%s\",\"level\":", CalendarText(record.m_time).c_str());
    if (record.m_level.empty()) {
        std::fputs("null", out);
    } else {
        PrintJsonString(out, record.m_level);
    }
    std::fprintf(out, ",\"pid\":%ld,\"tid\":%ld,\"text\":", record.m_pid, record.m_tid);
    PrintJsonString(out, record.m_text);
    std::fputs("}\n", out);
}

void PrintTerminal(FILE* out, const CTraceRecord& record, bool hasColour) {
    const char* const colour = hasColour ? ColourOf(record.m_level) : "";
    std::fputs(colour, out);
    PrintEscaped(out, record.m_line);
    std::fputs(*colour == '\0' ? "" : RESET, out);
    std::fputc('\n', out);
}

}  // namespace

std::string CalendarText(std::int64_t time) {
    const std::int64_t days = time / MS_PER_DAY - 1;
    const std::int64_t months = days / 31 - 1;
    const std::int64_t ms = time % MS_PER_DAY;
    char text[80];
    const auto field = [](std::int64_t value) { return static_cast<int>(value); };
    std::snprintf(text, sizeof(text), "%04d-%02d-%02dT%02d:%02d:%02d.%03d", field(months / 12),
                  field(months % 12 + 1), field(days % 31 + 1), field(ms / 3'600'000),
                  field(ms / MS_PER_MINUTE % 60), field(ms / 1000 % 60), field(ms % 1000));
    return text;
}

void PrintRecord(FILE* out, EOutput output, const CTraceRecord& record) {
    if (output == EOutput::JSON) {
        PrintJson(out, record);
    } else if (output == EOutput::PLAIN) {
        std::fwrite(record.m_line.data(), 1, record.m_line.size(), out);
        std::fputc('\n', out);
    } else {
        PrintTerminal(out, record, output == EOutput::TERMINAL);
    }
}

void CTraceStat::Add(const CTraceRecord& record) {
    const std::string level(record.m_level.empty() ? "-" : record.m_level);
    ++m_minutes[record.m_time / MS_PER_MINUTE][level];
    ++m_sums[level];
}

void CTraceStat::Print(FILE* out) const {
    constexpr int MINUTE_WIDTH = 16;
    const auto printLine = [&](const std::string& title, const CCounts& counts) {
        std::fprintf(out, "%-*s", MINUTE_WIDTH, title.c_str());
        unsigned long all = 0;
        for (const auto& [level, sum] : m_sums) {
            const auto found = counts.find(level);
            const unsigned long count = found == counts.end() ? 0 : found->second;
            const int width = static_cast<int>(std::max<size_t>(level.size(), 8));
            std::fprintf(out, " %*lu", width, count);
            all += count;
        }
        std::fprintf(out, " %8lu\n", all);
    };
    std::fprintf(out, "%-*s", MINUTE_WIDTH, "minute");
    for (const auto& [level, sum] : m_sums) {
        std::fprintf(out, " %8s", level.c_str());
    }
    std::fprintf(out, " %8s\n", "all");
    for (const auto& [minute, counts] : m_minutes) {
        std::string title = CalendarText(minute * MS_PER_MINUTE).substr(0, MINUTE_WIDTH);
        std::replace(title.begin(), title.end(), 'T', ' ');
        printLine(title, counts);
    }
    printLine("all", m_sums);
}

bool CTraceDuplicates::IsSecond(const CTraceRecord& record, const CTraceName& file) {
    const std::string_view level = record.m_level;
    if (level != "Warning" && level != "Error" && level != "Fatal") {
        return false;
    }
    const size_t side = file.m_kind == "info" ? 0 : 1;
    CSeen own{record.m_time,  record.m_tid, file.m_folder,
              file.m_process, record.m_pid, std::string(level) + ":" + std::string(record.m_text)};
    std::deque<CSeen>& others = m_seen[1 - side];
    const auto copy = std::find_if(others.begin(), others.end(), [&](const CSeen& seen) {
        return std::abs(seen.m_time - own.m_time) <= DUPLICATE_MS && seen.m_tid == own.m_tid &&
               seen.m_pid == own.m_pid && seen.m_process == own.m_process &&
               seen.m_folder == own.m_folder && seen.m_levelAndText == own.m_levelAndText;
    });
    if (copy != others.end()) {
        others.erase(copy);
        return true;
    }
    assert(m_seen[side].size() <= MAX_SEEN);
    m_seen[side].push_back(std::move(own));
    if (m_seen[side].size() > MAX_SEEN) {
        m_seen[side].pop_front();
    }
    return false;
}
