#include <common/CommandLine.h>
#include <nx/config/init_file.h>
#include <nx/net/CNxInetAddr.h>
#include <nx/process/trace_setting.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

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

int Fail(const std::string& what, int status) {
    std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, what.c_str());
    return status;
}

bool CommandLine::IsKnown(const std::string& name) const {
    return Find(numbers, name) != nullptr || Find(texts, name) != nullptr;
}

std::string CommandLine::Store(const std::string& name, const std::string& value) const {
    const TextOption* const text = Find(texts, name);
    if (text == nullptr) {
        const NumberOption* const number = Find(numbers, name);
        assert(number != nullptr);
        return SetNumber(*number, value);
    }
    *text->value = value;
    return {};
}

std::string CommandLine::Check() const {
    return check ? check() : std::string();
}

std::string CommandLine::ReadSection(const char* section) {
    std::vector<const char*> names;
    for (const NumberOption& option : numbers) {
        names.push_back(option.name);
    }
    for (const TextOption& option : texts) {
        names.push_back(option.name);
    }
    for (const char* const name : names) {
        const std::string key = name + std::strlen("--");
        char value[1024];
        if (get_string_param(section, key.c_str(), value, sizeof(value))) {
            const std::string error = Store(name, value);
            if (!error.empty()) {
                return std::string(g_strConfigfile1) + ": " + error;
            }
        }
    }
    return Check();
}

std::string CommandLine::Parse(int argc, const char* const* argv) {
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--help") {
            help = true;
            return {};
        }
        if (const FlagOption* const flag = Find(flags, argument)) {
            *flag->value = true;
            continue;
        }
        const size_t equals = argument.find('=');
        const std::string name = argument.substr(0, equals);
        if (!IsKnown(name)) {
            return "unknown option '" + name + "'";
        }
        if (equals == std::string::npos && ++i == argc) {
            return name + " needs a value";
        }
        std::string error =
            Store(name, equals == std::string::npos ? argv[i] : argument.substr(equals + 1));
        if (!error.empty()) {
            return error;
        }
    }
    return Check();
}

std::optional<int> CommandLine::Read(int argc, const char* const* argv) {
    const std::string error = Parse(argc, argv);
    if (!error.empty()) {
        return Fail(WithHint(error), c_statusBadOptions);
    }
    if (help) {
        std::fputs(usage, stdout);
        return 0;
    }
    return std::nullopt;
}

std::string WithHint(const std::string& error) {
    return error + "\nTry '" + program_invocation_short_name + " --help'.";
}

std::string ToEndpoint(const std::string& host, std::uint64_t port) {
    const bool isV6 = host.find(':') != std::string::npos;
    return (isV6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

std::string CheckAddress(const char* option, const std::string& value) {
    if (CNxInetAddr::IsIpAddress(CNxString(value.c_str()))) {
        return {};
    }
    return std::string(option) + " takes an IPv4 or IPv6 address, not '" + value + "'";
}

}  // namespace examples
