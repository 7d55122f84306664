#include <nx/process/proc_text.h>

#include <charconv>
#include <limits>

namespace {

// A number without a sign that takes up the whole text and fits.
template <class Number>
bool ToNumber(std::string_view text, Number& number) {
    unsigned long value = 0;
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, value);
    constexpr auto c_most = static_cast<unsigned long>(std::numeric_limits<Number>::max());
    if (result.ec != std::errc() || result.ptr != end || value > c_most) {
        return false;
    }
    number = static_cast<Number>(value);
    return true;
}

// Takes the text up to the next space, or all of it, off the front.
std::string_view TakeField(std::string_view& text) {
    const std::string_view field = text.substr(0, text.find(' '));
    text.remove_prefix(field.size() < text.size() ? field.size() + 1 : field.size());
    return field;
}

// The fields are numbered as in proc(5); what follows the name begins with field 3.
bool ParseFields(std::string_view text, CProcStat& stat) {
    bool isGood = true;
    for (int number = 3; number <= 24 && isGood; ++number) {
        const std::string_view field = TakeField(text);
        switch (number) {
            case 3:
                isGood = field.size() == 1;
                stat.m_state = isGood ? field[0] : '?';
                break;
            case 4:
                isGood = ToNumber(field, stat.m_parent);
                break;
            case 20:
                isGood = ToNumber(field, stat.m_threads);
                break;
            case 22:
                isGood = ToNumber(field, stat.m_startTicks);
                break;
            case 24:
                isGood = ToNumber(field, stat.m_residentPages);
                break;
            default:
                isGood = !field.empty();
        }
    }
    return isGood;
}

}  // namespace

bool ParseProcStat(std::string_view text, CProcStat& stat) {
    // The name may hold spaces and parentheses itself; nothing after it does.
    const size_t begin = text.find(" (");
    const size_t end = text.rfind(") ");
    if (begin == std::string_view::npos || end == std::string_view::npos || end < begin + 2) {
        return false;
    }
    CProcStat read;
    if (!ToNumber(text.substr(0, begin), read.m_pid) || !ParseFields(text.substr(end + 2), read)) {
        return false;
    }
    read.m_name.assign(text.data() + begin + 2, end - begin - 2);
    stat = read;
    return true;
}

std::vector<CNxString> SplitCommandLine(std::string_view text) {
    std::vector<CNxString> arguments;
    while (!text.empty()) {
        const std::string_view argument = text.substr(0, text.find('\0'));
        arguments.emplace_back(argument.data(), argument.size());
        text.remove_prefix(argument.size() < text.size() ? argument.size() + 1 : argument.size());
    }
    return arguments;
}
