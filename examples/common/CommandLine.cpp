#include <common/CommandLine.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace examples {

namespace {

// Digits only: strtoull would also take a sign and blanks.
bool ToNumber(const std::string& text, std::uint64_t& out) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    errno = 0;
    out = std::strtoull(text.c_str(), nullptr, 10);
    return errno == 0;
}

std::string SetNumber(const NumberOption& option, const std::string& text) {
    std::uint64_t number = 0;
    if (!ToNumber(text, number) || number < option.min || number > option.max) {
        return std::string(option.name) + " takes a number from " + std::to_string(option.min) +
               " to " + std::to_string(option.max) + ", not '" + text + "'";
    }
    *option.value = number;
    return {};
}

template <class Option>
const Option* Find(const std::vector<Option>& options, const std::string& name) {
    const auto hasName = [&name](const Option& option) { return name == option.name; };
    const auto found = std::find_if(options.begin(), options.end(), hasName);
    return found != options.end() ? &*found : nullptr;
}

}  // namespace

std::string CommandLine::Parse(int argc, const char* const* argv) {
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--help") {
            help = true;
            return {};
        }
        const size_t equals = argument.find('=');
        const std::string name = argument.substr(0, equals);
        const NumberOption* const number = Find(numbers, name);
        const TextOption* const text = Find(texts, name);
        if (number == nullptr && text == nullptr) {
            return "unknown option '" + name + "'";
        }
        if (equals == std::string::npos && ++i == argc) {
            return name + " needs a value";
        }
        const std::string value =
            equals == std::string::npos ? argv[i] : argument.substr(equals + 1);
        if (text != nullptr) {
            *text->value = value;
            continue;
        }
        std::string error = SetNumber(*number, value);
        if (!error.empty()) {
            return error;
        }
    }
    return {};
}

}  // namespace examples
