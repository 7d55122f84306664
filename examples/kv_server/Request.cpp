#include <kv_server/Request.h>

#include <algorithm>
#include <cassert>
#include <charconv>
#include <utility>

namespace kv_server {

namespace {

// Slices that are kept for the next command.
constexpr std::size_t c_keptSlices = 64;

bool IsBlank(char c) {
    return c == ' ' || c == '\t';
}

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

struct RequestParser::HeaderErrors {
    const char* invalid;
    const char* tooBig;
};

const RequestParser::HeaderErrors RequestParser::c_countErrors{"invalid multibulk length",
                                                               "too big mbulk count string"};
const RequestParser::HeaderErrors RequestParser::c_bulkErrors{"invalid bulk length",
                                                              "too big bulk count string"};

bool RequestParser::Next(CNxMessageChain& input, Arguments& out) {
    EStep step = EStep::ON;
    while (step == EStep::ON) {
        step = m_left != 0 ? ReadBulk(input) : Begin(input);
    }
    if (step == EStep::SHORT) {
        return false;
    }
    const std::string_view command = Gather(input, m_position);
    out.clear();
    for (const Slice& slice : m_slices) {
        out.push_back(command.substr(slice.offset, slice.size));
    }
    m_begin += std::exchange(m_position, 0);
    return true;
}

void RequestParser::Finish(CNxMessageChain& input) {
    input.Consume(std::exchange(m_begin, 0));
}

// What is there from the position on in one piece: a header is seen as a whole.
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

RequestParser::EStep RequestParser::Begin(CNxMessageChain& input) {
    if (m_begin == input.GetSize()) {
        return EStep::SHORT;
    }
    if (m_slices.capacity() > c_keptSlices) {
        m_slices = {};
    }
    m_slices.clear();
    if (Look(input, 0)[0] != '*') {
        return ReadInline(input);
    }
    long count = 0;
    const EStep step = ReadHeader(input, c_maxArguments, c_countErrors, count);
    if (step == EStep::ON && count <= 0) {
        m_begin += std::exchange(m_position, 0);
    } else if (step == EStep::ON) {
        m_left = static_cast<std::size_t>(count);
    }
    return step;
}

RequestParser::EStep RequestParser::ReadInline(CNxMessageChain& input) {
    const std::size_t end = input.Find('\n', m_begin + m_scanned);
    const bool isThere = end != CNxMessageChain::c_notFound;
    const std::size_t size = (isThere ? end : input.GetSize()) - m_begin;
    if (size > c_maxInline) {
        return Fail("too big inline request");
    }
    m_scanned = isThere ? 0 : size;
    if (!isThere) {
        return EStep::SHORT;
    }
    m_position = size + 1;
    std::string_view line = Gather(input, size);
    if (!line.empty() && line.back() == '\r') {
        line.remove_suffix(1);
    }
    const EStep step = SplitWords(line);
    if (step == EStep::COMPLETE && m_slices.empty()) {
        m_begin += std::exchange(m_position, 0);
        return EStep::ON;
    }
    return step;
}

// Words are parted by blanks; one in single or double quotes may contain them.
RequestParser::EStep RequestParser::SplitWords(std::string_view line) {
    for (std::size_t i = 0;;) {
        while (i < line.size() && IsBlank(line[i])) {
            ++i;
        }
        if (i == line.size()) {
            return EStep::COMPLETE;
        }
        const bool quoted = line[i] == '"' || line[i] == '\'';
        const std::size_t begin = quoted ? i + 1 : i;
        const std::size_t end = quoted ? line.find(line[i], begin) : line.find_first_of(" \t", i);
        if (quoted &&
            (end == std::string_view::npos || (end + 1 < line.size() && !IsBlank(line[end + 1])))) {
            return Fail("unbalanced quotes in request");
        }
        if (m_slices.size() == c_maxArguments) {
            return Fail("too many arguments");
        }
        const std::size_t size = line.substr(begin, end - begin).size();
        m_slices.push_back({static_cast<std::uint32_t>(begin), static_cast<std::uint32_t>(size)});
        i = begin + size + (quoted ? 1 : 0);
    }
}

// The number in the line at the position, behind its type; ends with CR LF or a bare LF.
RequestParser::EStep RequestParser::ReadHeader(const CNxMessageChain& input, long most,
                                               const HeaderErrors& errors, long& number) {
    const std::string_view text = Look(input, m_position).substr(0, c_maxHeader + 1);
    const std::size_t end = text.find('\n');
    if (end == std::string_view::npos) {
        return text.size() > c_maxHeader ? Fail(errors.tooBig) : EStep::SHORT;
    }
    const std::size_t size = end > 1 && text[end - 1] == '\r' ? end - 1 : end;
    if (!ToNumber(text.substr(1, size - 1), number) || number > most) {
        return Fail(errors.invalid);
    }
    m_position += end + 1;
    return EStep::ON;
}

RequestParser::EStep RequestParser::ReadBulk(CNxMessageChain& input) {
    const std::size_t there = input.GetSize() - m_begin;
    if (m_bulkSize == c_noBulk) {
        if (there == m_position) {
            return EStep::SHORT;
        }
        const char type = Look(input, m_position)[0];
        if (type != '$') {
            return Fail("expected '$', got '" + ToShown({&type, 1}) + "'");
        }
        long size = 0;
        const EStep step = ReadHeader(input, c_maxBulk, c_bulkErrors, size);
        if (step != EStep::ON || size < 0) {
            return step != EStep::ON ? step : Fail(c_bulkErrors.invalid);
        }
        m_bulkSize = static_cast<std::size_t>(size);
    }
    const std::size_t end = m_position + m_bulkSize;
    if (end + 2 > c_maxCommand) {
        return Fail("command too big");
    }
    if (there < end + 2) {
        return EStep::SHORT;
    }
    if (Look(input, end).substr(0, 2) != "\r\n") {
        return Fail("expected CRLF after bulk string");
    }
    m_slices.push_back(
        {static_cast<std::uint32_t>(m_position), static_cast<std::uint32_t>(m_bulkSize)});
    m_position = end + 2;
    m_bulkSize = c_noBulk;
    return --m_left == 0 ? EStep::COMPLETE : EStep::ON;
}

// The place stays where it is: nothing more is parsed.
RequestParser::EStep RequestParser::Fail(std::string error) {
    m_error = "Protocol error: " + std::move(error);
    return EStep::SHORT;
}

}  // namespace kv_server
