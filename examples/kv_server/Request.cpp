#include <kv_server/Request.h>

#include <algorithm>
#include <charconv>
#include <utility>

namespace kv_server {

namespace {

// Longer than any number that can be meant.
constexpr std::size_t c_maxHeader = 32;
constexpr std::string_view c_blanks = " \t";
constexpr std::size_t c_none = std::string_view::npos;

}  // namespace

bool ToNumber(std::string_view text, long& out) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), out);
    return error == std::errc() && end == text.data() + text.size();
}

std::string ToShown(std::string_view text) {
    std::string shown(text);
    std::replace_if(
        shown.begin(), shown.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
    return shown;
}

bool RequestParser::Next(CNxMessageChain& input, Arguments& out) {
    while (m_words.empty() || m_left > 0) {
        if (m_left > 0 ? !ReadBulk(input) : !Begin(input)) {
            return false;
        }
    }
    const std::string_view command = Gather(input, m_position);
    out.clear();
    for (const Word& word : m_words) {
        out.push_back(command.substr(word.offset, word.size));
    }
    m_words.clear();
    m_begin += std::exchange(m_position, 0);
    return true;
}

void RequestParser::Finish(CNxMessageChain& input) {
    input.Consume(std::exchange(m_begin, 0));
}

// What is there from the position on in one piece, as far as a header may reach at least.
std::string_view RequestParser::Look(const CNxMessageChain& input, std::size_t position) {
    const std::string_view front = input.GetFront();
    const std::size_t at = m_begin + position;
    if (at + sizeof(m_look) <= front.size() || front.size() == input.GetSize()) {
        return front.substr(std::min(at, front.size()));
    }
    return {m_look, input.Copy(m_look, sizeof(m_look), at)};
}

// The first bytes of the command, all there, in one piece.
std::string_view RequestParser::Gather(CNxMessageChain& input, std::size_t size) {
    if (m_begin + size > input.GetFront().size()) {
        Finish(input);
        return input.Flatten(size);
    }
    return input.GetFront().substr(m_begin, size);
}

// Goes behind the beginning of a command, or the whole of one that is empty or in one line.
bool RequestParser::Begin(CNxMessageChain& input) {
    const std::string_view text = Look(input, 0);
    if (text.empty() || text[0] != '*') {
        return !text.empty() && ReadLine(input);
    }
    long count = 0;
    const std::size_t size = ReadHeader(text, count);
    if (count > 0) {
        m_position = size;
        m_left = static_cast<std::size_t>(count);
    } else {
        m_begin += size;
    }
    return size > 0;
}

bool RequestParser::ReadLine(CNxMessageChain& input) {
    const std::size_t end = input.Find('\n', m_begin);
    const std::size_t size = std::min(end, input.GetSize()) - m_begin;
    if (size > c_maxInline) {
        return Fail("too big inline request");
    }
    if (end == CNxMessageChain::c_notFound) {
        return false;
    }
    std::string_view line = Gather(input, size);
    if (!line.empty() && line.back() == '\r') {
        line.remove_suffix(1);
    }
    const bool isRight = SplitWords(line);
    (m_words.empty() ? m_begin : m_position) += size + 1;
    return isRight;
}

// Words are parted by blanks; one in single or double quotes may contain them.
bool RequestParser::SplitWords(std::string_view line) {
    for (std::size_t at = 0; (at = line.find_first_not_of(c_blanks, at)) != c_none; ++at) {
        const bool isQuoted = line[at] == '"' || line[at] == '\'';
        const std::size_t begin = isQuoted ? at + 1 : at;
        at = isQuoted ? line.find(line[at], begin) : line.find_first_of(c_blanks, begin);
        // Before a blank or the end of the line, where the empty text is found, too.
        const bool isEnd = at != c_none && c_blanks.find(line.substr(at + 1, 1)) != c_none;
        if (isQuoted && !isEnd) {
            return Fail("unbalanced quotes in request");
        }
        if (m_words.size() == c_maxArguments) {
            return Fail("too many arguments");
        }
        at = std::min(at, line.size());
        m_words.push_back(
            {static_cast<std::uint32_t>(begin), static_cast<std::uint32_t>(at - begin)});
    }
    return true;
}

// Reads "*3\r\n" or "$5\r\n"; a bare LF ends it, too. Returns its size, 0 when it is not complete
// or not right.
std::size_t RequestParser::ReadHeader(std::string_view text, long& number) {
    const bool isCount = text[0] == '*';
    const std::size_t end = text.substr(0, c_maxHeader + 1).find('\n');
    if (end == c_none) {
        return text.size() > c_maxHeader
                   ? Fail(isCount ? "too big mbulk count string" : "too big bulk count string")
                   : 0;
    }
    const std::size_t size = text[end - 1] == '\r' ? end - 1 : end;
    const auto most = static_cast<long>(isCount ? c_maxArguments : c_maxBulk);
    if (!ToNumber(text.substr(1, size - 1), number) || number > most || (!isCount && number < 0)) {
        return Fail(isCount ? "invalid multibulk length" : "invalid bulk length");
    }
    return end + 1;
}

bool RequestParser::ReadBulk(const CNxMessageChain& input) {
    const std::string_view text = Look(input, m_position);
    if (text.empty() || text[0] != '$') {
        return !text.empty() && Fail("expected '$', got '" + ToShown(text.substr(0, 1)) + "'");
    }
    long size = 0;
    const std::size_t header = ReadHeader(text, size);
    if (header == 0) {
        return false;
    }
    const std::size_t begin = m_position + header;
    const std::size_t end = begin + static_cast<std::size_t>(size);
    if (end + 2 > c_maxCommand) {
        return Fail("command too big");
    }
    if (input.GetSize() - m_begin < end + 2) {
        return false;
    }
    if (Look(input, end).substr(0, 2) != "\r\n") {
        return Fail("expected CRLF after bulk string");
    }
    m_words.push_back({static_cast<std::uint32_t>(begin), static_cast<std::uint32_t>(size)});
    m_position = end + 2;
    --m_left;
    return true;
}

// Always false.
bool RequestParser::Fail(const std::string& error) {
    m_error = "Protocol error: " + error;
    return false;
}

}  // namespace kv_server
