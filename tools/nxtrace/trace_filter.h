// Which records the user wants to see.
#pragma once

#include <regex.h>

#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "trace_record.h"

// The calendar milliseconds (CalendarMs) that a text of the user means: "10m" (s, m, h or d before
// now), "09:30", "09:30:15" or "09:30:15.250" (today), "2026-11-21" with or without a time after
// it, or "11/21/2026" likewise, as the files write it. False when it is none of these.
[[nodiscard]] bool ParseUserTime(const std::string& text, std::int64_t& time);

class CTraceFilter {
public:
    CTraceFilter() = default;
    CTraceFilter(const CTraceFilter&) = delete;
    CTraceFilter& operator=(const CTraceFilter&) = delete;

    // Each returns an empty text, or what is wrong with the argument.
    [[nodiscard]] std::string SetSince(const std::string& text);
    [[nodiscard]] std::string SetUntil(const std::string& text);
    // Names between commas, in any case.
    [[nodiscard]] std::string SetLevels(const std::string& text);
    // Numbers between commas.
    [[nodiscard]] std::string SetPids(const std::string& text);
    [[nodiscard]] std::string SetTids(const std::string& text);
    // A POSIX extended regular expression, searched in "Level:text".
    [[nodiscard]] std::string SetPattern(const std::string& text);

    bool Accepts(const CTraceRecord& record) const;

private:
    bool MatchesPattern(const CTraceRecord& record) const;

    struct CRegexFree {
        void operator()(regex_t* regex) const {
            regfree(regex);
            delete regex;
        }
    };

    std::int64_t m_since = std::numeric_limits<std::int64_t>::min();
    std::int64_t m_until = std::numeric_limits<std::int64_t>::max();
    std::vector<std::string> m_levels;
    std::vector<long> m_pids;
    std::vector<long> m_tids;
    std::unique_ptr<regex_t, CRegexFree> m_pattern;
};
