#include <kv_server/Glob.h>

#include <cstddef>

namespace kv_server {

namespace {

// Matches one byte against the pattern's element at `position`, which goes behind that element.
bool MatchSet(std::string_view pattern, std::size_t& position, char byte) {
    std::size_t i = position + 1;
    const bool negated = i < pattern.size() && pattern[i] == '^';
    i += negated ? 1 : 0;
    bool found = false;
    for (; i < pattern.size() && pattern[i] != ']'; ++i) {
        if (pattern[i] == '\\' && i + 1 < pattern.size()) {
            ++i;
        }
        const auto low = static_cast<unsigned char>(pattern[i]);
        auto high = low;
        if (i + 2 < pattern.size() && pattern[i + 1] == '-' && pattern[i + 2] != ']') {
            i += 2;
            high = static_cast<unsigned char>(pattern[i]);
        }
        const auto value = static_cast<unsigned char>(byte);
        found = found || (low <= value && value <= high) || (high <= value && value <= low);
    }
    position = i + 1;  // one beyond the end for a set that is not closed, which is taken as closed
    return found != negated;
}

bool MatchOne(std::string_view pattern, std::size_t& position, char byte) {
    const char element = pattern[position];
    if (element == '[') {
        return MatchSet(pattern, position, byte);
    }
    const bool escaped = element == '\\' && position + 1 < pattern.size();
    const char literal = escaped ? pattern[position + 1] : element;
    position += escaped ? 2 : 1;
    return literal == byte || (!escaped && element == '?');
}

}  // namespace

bool MatchesGlob(std::string_view pattern, std::string_view text) {
    std::size_t p = 0;
    std::size_t t = 0;
    // Where to go on when the match fails: the last star takes one byte more. Earlier stars need
    // not be tried again.
    std::size_t afterStar = std::string_view::npos;
    std::size_t starTaken = 0;
    while (t < text.size()) {
        if (p < pattern.size() && pattern[p] == '*') {
            afterStar = ++p;
            starTaken = t;
        } else if (p < pattern.size() && MatchOne(pattern, p, text[t])) {
            ++t;
        } else if (afterStar != std::string_view::npos) {
            p = afterStar;
            t = ++starTaken;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == '*') {
        ++p;
    }
    return p >= pattern.size();
}

}  // namespace kv_server
