#include <common/Clock.h>
#include <kv_load/ProgressPrinter.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace kv_load {

namespace {

constexpr std::size_t c_longestBar = 40;
constexpr std::size_t c_shortestBar = 5;

std::size_t GetTerminalWidth() {
    winsize size{};
    const bool known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return known ? size.ws_col : 80;
}

std::uint64_t GetRate(std::uint64_t count, std::int64_t durationNs) {
    const double seconds =
        static_cast<double>(durationNs) / static_cast<double>(examples::c_nsPerSecond);
    return seconds > 0 ? static_cast<std::uint64_t>(static_cast<double>(count) / seconds) : 0;
}

}  // namespace

ProgressPrinter::ProgressPrinter(std::uint64_t requests)
    : m_requests(requests),
      m_terminal(isatty(STDOUT_FILENO) == 1),
      m_lastPrintedAt(examples::NowNs()) {}

void ProgressPrinter::ShowConnecting(std::uint64_t connected, std::uint64_t connections,
                                     std::int64_t now) {
    if (IsDue(now)) {
        Print("connected " + std::to_string(connected) + " of " + std::to_string(connections));
    }
}

void ProgressPrinter::ShowRunning(std::uint64_t completed, std::int64_t now) {
    if (!IsDue(now)) {
        return;
    }
    const std::uint64_t rate = GetRate(completed - m_lastCompleted, now - m_lastAt);
    m_lastCompleted = completed;
    m_lastAt = now;
    const std::string numbers = std::to_string(completed) + " of " + std::to_string(m_requests) +
                                " requests, " + std::to_string(rate) + "/s";
    Print(m_terminal ? MakeBar(completed, numbers) : numbers);
}

void ProgressPrinter::Clear() {
    if (m_drawn) {
        m_drawn = false;
        std::fputs("\r\033[K", stdout);
        std::fflush(stdout);
    }
}

bool ProgressPrinter::IsDue(std::int64_t now) {
    // A little less than a second, for the calls do not come to the nanosecond.
    constexpr std::int64_t c_betweenLines = examples::c_nsPerSecond / 10 * 9;
    if (!m_terminal && now - m_lastPrintedAt < c_betweenLines) {
        return false;
    }
    m_lastPrintedAt = now;
    return true;
}

void ProgressPrinter::Print(const std::string& text) {
    m_drawn = m_terminal;
    std::printf(m_terminal ? "\r%s\033[K" : "%s\n", text.c_str());
    std::fflush(stdout);
}

std::string ProgressPrinter::MakeBar(std::uint64_t completed, const std::string& numbers) const {
    // The last column stays free: a character in it would break the line.
    const std::size_t taken = numbers.size() + 4;
    const std::size_t width = GetTerminalWidth();
    if (width < taken + c_shortestBar) {
        return numbers;
    }
    const std::size_t length = std::min(width - taken, c_longestBar);
    const double part = static_cast<double>(completed) / static_cast<double>(m_requests);
    const auto full =
        std::min(length, static_cast<std::size_t>(part * static_cast<double>(length)));
    return "[" + std::string(full, '#') + std::string(length - full, '.') + "] " + numbers;
}

}  // namespace kv_load
