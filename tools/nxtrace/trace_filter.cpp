#include "trace_filter.h"

#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <sstream>

namespace {

constexpr long SECONDS_PER_DAY = 24L * 60 * 60;

// "10m": so many units before now.
bool ParseAgo(const std::string& text, tm& when) {
    char* end = nullptr;
    errno = 0;
    const long count = std::strtol(text.c_str(), &end, 10);
    const std::string unit(end);
    const long seconds = unit == "s"   ? 1
                         : unit == "m" ? 60
                         : unit == "h" ? 3600
                         : unit == "d" ? SECONDS_PER_DAY
                                       : 0;
    if (end == text.c_str() || seconds == 0 || errno != 0 || count < 0 ||
        count > std::time(nullptr) / seconds) {
        return false;
    }
    const time_t then = std::time(nullptr) - count * seconds;
    return localtime_r(&then, &when) != nullptr;
}

// The rest of a text after its date or time: nothing, or milliseconds.
bool ParseRest(const char* rest, bool hasSeconds, int& ms) {
    if (hasSeconds && *rest == '.') {
        char* end = nullptr;
        const std::string digits = (std::string(rest + 1) + "00").substr(0, 3);
        ms = static_cast<int>(std::strtol(digits.c_str(), &end, 10));
        return rest[1] >= '0' && rest[1] <= '9' && *end == '\0' && std::string(rest).size() <= 4;
    }
    return *rest == '\0';
}

bool ParseDateTime(const std::string& text, tm& when, int& ms) {
    const time_t now = std::time(nullptr);
    for (const char* const date : {"%Y-%m-%d", "%m/%d/%Y", ""}) {
        for (const char* const clock : {" %H:%M:%S", "T%H:%M:%S", " %H:%M", "T%H:%M", ""}) {
            if (*date == '\0' && *clock == '\0') {
                continue;
            }
            localtime_r(&now, &when);
            when.tm_hour = when.tm_min = when.tm_sec = 0;
            const std::string format = std::string(date) + clock;
            const char* const rest = strptime(text.c_str(), format.c_str(), &when);
            if (rest != nullptr && ParseRest(rest, format.find("%S") != std::string::npos, ms)) {
                return true;
            }
        }
    }
    return false;
}

std::vector<std::string> SplitAtCommas(const std::string& text) {
    std::vector<std::string> parts;
    std::istringstream in(text);
    for (std::string part; std::getline(in, part, ',');) {
        const size_t start = part.find_first_not_of(' ');
        if (start != std::string::npos) {
            parts.push_back(part.substr(start, part.find_last_not_of(' ') - start + 1));
        }
    }
    return parts;
}

std::string ParseNumbers(const std::string& text, std::vector<long>& numbers) {
    for (const std::string& part : SplitAtCommas(text)) {
        char* end = nullptr;
        const long number = std::strtol(part.c_str(), &end, 10);
        if (part.empty() || *end != '\0') {
            return "not a number: " + part;
        }
        numbers.push_back(number);
    }
    return numbers.empty() ? "a number is missing" : "";
}

bool IsOneOf(const std::vector<long>& numbers, long number) {
    return numbers.empty() || std::find(numbers.begin(), numbers.end(), number) != numbers.end();
}

std::string ParseTimeOption(const std::string& text, std::int64_t& time) {
    return ParseUserTime(text, time) ? "" : "not a time: " + text + " (try 09:30 or 10m)";
}

}  // namespace

bool ParseUserTime(const std::string& text, std::int64_t& time) {
    tm when{};
    int ms = 0;
    if (!ParseAgo(text, when) && !ParseDateTime(text, when, ms)) {
        return false;
    }
    time = CalendarMs(when.tm_year + 1900, when.tm_mon + 1, when.tm_mday, when.tm_hour, when.tm_min,
                      when.tm_sec, ms);
    return true;
}

std::string CTraceFilter::SetSince(const std::string& text) {
    return ParseTimeOption(text, m_since);
}

std::string CTraceFilter::SetUntil(const std::string& text) {
    return ParseTimeOption(text, m_until);
}

std::string CTraceFilter::SetLevels(const std::string& text) {
    m_levels = SplitAtCommas(text);
    return m_levels.empty() ? "a level is missing" : "";
}

std::string CTraceFilter::SetPids(const std::string& text) {
    return ParseNumbers(text, m_pids);
}

std::string CTraceFilter::SetTids(const std::string& text) {
    return ParseNumbers(text, m_tids);
}

std::string CTraceFilter::SetPattern(const std::string& text) {
    auto regex = std::make_unique<regex_t>();
    const int error = regcomp(regex.get(), text.c_str(), REG_EXTENDED | REG_NOSUB);
    if (error != 0) {
        char message[256];
        regerror(error, regex.get(), message, sizeof(message));
        return message;
    }
    m_pattern.reset(regex.release());
    return "";
}

bool CTraceFilter::Accepts(const CTraceRecord& record) const {
    const auto isLevel = [&](const std::string& level) {
        return level.size() == record.m_level.size() &&
               strncasecmp(level.data(), record.m_level.data(), level.size()) == 0;
    };
    return record.m_time >= m_since && record.m_time <= m_until && IsOneOf(m_pids, record.m_pid) &&
           IsOneOf(m_tids, record.m_tid) &&
           (m_levels.empty() || std::any_of(m_levels.begin(), m_levels.end(), isLevel)) &&
           MatchesPattern(record);
}

bool CTraceFilter::MatchesPattern(const CTraceRecord& record) const {
    if (m_pattern == nullptr) {
        return true;
    }
    std::string text(record.m_level);
    if (!text.empty()) {
        text += ':';
    }
    text += record.m_text;
    // REG_STARTEND lets a text hold zero bytes.
    regmatch_t range{0, static_cast<regoff_t>(text.size())};
    return regexec(m_pattern.get(), text.c_str(), 1, &range, REG_STARTEND) == 0;
}
