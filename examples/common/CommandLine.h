// Options of the form "--name value" and "--name=value".
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace examples {

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

struct CommandLine {
    std::vector<NumberOption> numbers;
    std::vector<TextOption> texts;
    // Set by --help, which ends the reading.
    bool help = false;

    // Stores what the arguments say; the last of several wins. Answers what is wrong, in one line
    // for people, or "".
    std::string Parse(int argc, const char* const* argv);
};

}  // namespace examples
