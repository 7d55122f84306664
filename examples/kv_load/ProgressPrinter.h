// Shows on standard output how far a run is.
#pragma once

#include <cstdint>
#include <string>

namespace kv_load {

// On a terminal one line that is drawn over and over, elsewhere a new line about every second.
// For one thread.
class ProgressPrinter {
public:
    explicit ProgressPrinter(std::uint64_t requests);

    // The Show operations are to be called a few times a second; `now` is of NowNs().
    void ShowConnecting(std::uint64_t connected, std::uint64_t connections, std::int64_t now);
    // The first request is sent now: the rate is measured from here.
    void StartRunning(std::int64_t now) { m_lastAt = now; }
    void ShowRunning(std::uint64_t completed, std::int64_t now);

    // Takes the drawn line off the terminal, before something else is written.
    void Clear();

private:
    // Whether it is time for the next output.
    bool IsDue(std::int64_t now);
    void Print(const std::string& text);
    std::string MakeBar(std::uint64_t completed, const std::string& numbers) const;

    const std::uint64_t m_requests;
    const bool m_terminal;
    bool m_drawn = false;
    std::int64_t m_lastPrintedAt;
    // What the next rate is measured from.
    std::int64_t m_lastAt = 0;
    std::uint64_t m_lastCompleted = 0;
};

}  // namespace kv_load
