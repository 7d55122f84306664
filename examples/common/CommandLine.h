// Options of the form "--name value" and "--name=value", or from the configuration file.
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

    // Stores what the section of the process's configuration file says, where an option is a key by
    // its name without the dashes. Answers as Parse. After trace_setting_init.
    std::string ReadSection(const char* section);

    // Stores what the arguments say; the last of several wins. Answers what is wrong, in one line
    // for people, or "".
    std::string Parse(int argc, const char* const* argv);

private:
    bool IsKnown(const std::string& name) const;
    std::string Store(const std::string& name, const std::string& value) const;
};

}  // namespace examples
