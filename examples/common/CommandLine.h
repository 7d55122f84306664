// Options of the form "--name value" and "--name=value", or from the configuration file, and the
// way programs end that get none.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace examples {

constexpr int c_statusFailed = 1;
constexpr int c_statusBadOptions = 2;

// Says on standard error what is wrong, with the program's name before it. Returns the status.
int Fail(const std::string& what, int status = c_statusFailed);

// An option that takes digits, from `min` to `max`.
struct NumberOption {
    const char* name;
    std::uint64_t* value;
    std::uint64_t min;
    std::uint64_t max;
};

struct TextOption {
    const char* name;
    std::string* value;
};

// One without a value, on the command line only.
struct FlagOption {
    const char* name;
    bool* value;
};

// The options of a program. What is wrong is said in one line for people; "" when nothing is.
struct CommandLine {
    const char* usage;  // the text of --help
    std::vector<NumberOption> numbers;
    std::vector<TextOption> texts;
    std::vector<FlagOption> flags;
    // Looks at all values at the end of a reading.
    std::function<std::string()> check;
    // Whether --help, which ends the reading without a check, was there.
    bool help = false;

    // Stores what the section of the process's configuration file says, where an option is a key by
    // its name without the dashes. Returns what is wrong. After trace_setting_init.
    [[nodiscard]] std::string ReadSection(const char* section);

    // Stores what the arguments say; the last of several wins. Returns what is wrong.
    [[nodiscard]] std::string Parse(int argc, const char* const* argv);

    // For main(): reads the arguments, and prints the help or what is wrong. Returns the status to
    // end with, or nothing when the program is to go on.
    [[nodiscard]] std::optional<int> Read(int argc, const char* const* argv);

private:
    bool IsKnown(const std::string& name) const;
    std::string Store(const std::string& name, const std::string& value) const;
    std::string Check() const;
};

// What is wrong with the options, and a line that tells where to learn more.
std::string WithHint(const std::string& error);

// "10.0.0.1:80", "[::1]:80", "name:80".
std::string ToEndpoint(const std::string& host, std::uint64_t port);

// What is wrong with the option's value as an IPv4 or IPv6 address, or "".
std::string CheckAddress(const char* option, const std::string& value);

}  // namespace examples
