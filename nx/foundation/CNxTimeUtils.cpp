#include <nx/foundation/CNxTimeUtils.h>

#include <cerrno>
#include <cstdio>

namespace {

constexpr long c_secondsPerDay = 86400;
constexpr unsigned int c_lastDay = 2932896;  // 9999-12-31
constexpr int c_daysToEpoch = 719468;        // from 0000-03-01 to 1970-01-01

constexpr const char* c_weekdays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
constexpr const char* c_months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                    "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

bool IsLeapYear(int year) {
    return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

// Years begin in March here, so that a leap day is the last of its year.
void SetDate(int days, tm& out) {
    const int d = days + c_daysToEpoch;
    const int v = 400 * d + 800;
    int year = v / 146097;
    // Negative on the last days of a March year, for which the quotient is a year too high.
    int dayOfYear = d - 365 * year - v / 584388 + v / 14609700 - v / 58438800;
    if (dayOfYear < 0) {
        dayOfYear += 365 + (IsLeapYear(year) ? 1 : 0);
        --year;
    }
    const int month = (10 * dayOfYear + 310) / 306;  // 1 is March, 12 February
    const bool isNextYear = dayOfYear > 305;         // January or February
    out.tm_mday = dayOfYear + 31 - (367 * month) / 12;
    out.tm_mon = isNextYear ? month - 10 : month + 2;
    out.tm_year = isNextYear ? year + 1 : year;
}

}  // namespace

int cnx_gettimeofday(timeval* tv, void* tz) {
    return gettimeofday(tv, static_cast<struct timezone*>(tz));
}

void CurrentTmTime(tm* out, int* usec) {
    timeval now = {};
    if (gettimeofday(&now, nullptr) < 0) {
        now = {};
    }
    if (out != nullptr) {
        gmtime_r(&now.tv_sec, out);
    }
    if (usec != nullptr) {
        *usec = static_cast<int>(now.tv_usec);
    }
}

void cnx_gmtime(long t, tm* out) {
    if (out == nullptr) {
        return;
    }
    auto days = static_cast<unsigned int>(t / c_secondsPerDay);
    auto second = static_cast<int>(t % c_secondsPerDay);
    if (t < 0) {
        days = 0;
        second = 0;
    } else if (days > c_lastDay) {
        days = c_lastDay;
        second = c_secondsPerDay - 1;
    }
    SetDate(static_cast<int>(days), *out);
    out->tm_hour = second / 3600;
    out->tm_min = second % 3600 / 60;
    out->tm_sec = second % 60;
    out->tm_wday = static_cast<int>((days + 4) % 7);
}

CNxString GetGMTTimeString() {
    timeval now = {};
    gettimeofday(&now, nullptr);
    tm date = {};
    cnx_gmtime(now.tv_sec, &date);
    char text[65] = {};
    std::snprintf(text, sizeof(text), "%s, %02d %s %4d %02d:%02d:%02d GMT",
                  c_weekdays[date.tm_wday], date.tm_mday, c_months[date.tm_mon - 1], date.tm_year,
                  date.tm_hour, date.tm_min, date.tm_sec);
    return {text};
}

void cnx_sleep_ms(unsigned long ms) {
    timespec remaining{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000};
    while (nanosleep(&remaining, &remaining) == -1 && errno == EINTR) {
    }
}
