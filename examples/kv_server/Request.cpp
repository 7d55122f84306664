#include <kv_server/Request.h>

#include <algorithm>
#include <cassert>
#include <charconv>
#include <utility>

namespace kv_server {

namespace {

// Longer than any number that can be meant.
constexpr std::size_t c_maxHeader = 32;

bool IsBlank(char c) {
    return c == ' ' || c == '\t';
}

std::string_view GetBytes(const CNxMessageBlock& block) {
    return {block.GetReadPtr(), block.GetLength()};
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

std::size_t RequestParser::Parse(std::string_view input, CommandList& out) {
    std::size_t consumed = 0;
    while (m_error.empty()) {
        const EStep step = Step(input.substr(consumed));
        if (step == EStep::SHORT) {
            break;
        }
        if (step == EStep::COMPLETE) {
            for (const CommandList::Slice& slice : m_arguments) {
                const std::size_t offset = consumed + slice.offset;
                out.arguments.push_back({static_cast<std::uint32_t>(offset), slice.size});
            }
            if (!m_arguments.empty()) {
                out.ends.push_back(out.arguments.size());
            }
            consumed += m_position;
            assert(consumed <= input.size());
            m_arguments.clear();
            m_state = EState::BEGIN;
            m_position = m_scanned = m_needed = 0;
        }
    }
    return consumed;
}

RequestParser::EStep RequestParser::Step(std::string_view command) {
    switch (m_state) {
        case EState::BEGIN:
            return Begin(command);
        case EState::INLINE:
            return ReadInline(command);
        case EState::COUNT:
            return ReadCount(command);
        case EState::BULK_SIZE:
            return ReadBulkSize(command);
        default:
            return ReadBulk(command);
    }
}

RequestParser::EStep RequestParser::Begin(std::string_view command) {
    if (command.empty()) {
        return EStep::SHORT;
    }
    m_state = command[0] == '*' ? EState::COUNT : EState::INLINE;
    return EStep::ON;
}

RequestParser::EStep RequestParser::ReadInline(std::string_view command) {
    std::string_view line;
    if (!TakeLine(command, c_maxInline, line)) {
        return command.size() > c_maxInline ? Fail("too big inline request") : EStep::SHORT;
    }
    return SplitWords(line) ? EStep::COMPLETE : EStep::ON;
}

RequestParser::EStep RequestParser::ReadCount(std::string_view command) {
    std::string_view line;
    if (!TakeLine(command, c_maxHeader, line)) {
        return command.size() > c_maxHeader ? Fail("too big mbulk count string") : EStep::SHORT;
    }
    long count = 0;
    if (!ToNumber(line.substr(1), count) || count > static_cast<long>(c_maxArguments)) {
        return Fail("invalid multibulk length");
    }
    if (count <= 0) {
        return EStep::COMPLETE;
    }
    m_argumentsLeft = static_cast<std::size_t>(count);
    m_state = EState::BULK_SIZE;
    return EStep::ON;
}

RequestParser::EStep RequestParser::ReadBulkSize(std::string_view command) {
    if (command.size() > m_position && command[m_position] != '$') {
        return Fail("expected '$', got '" + ToShown(command.substr(m_position, 1)) + "'");
    }
    const std::size_t begin = m_position;
    std::string_view line;
    if (!TakeLine(command, c_maxHeader, line)) {
        return command.size() - begin > c_maxHeader ? Fail("too big bulk count string")
                                                    : EStep::SHORT;
    }
    long size = 0;
    if (!ToNumber(line.substr(1), size) || size < 0 || size > static_cast<long>(c_maxBulk)) {
        return Fail("invalid bulk length");
    }
    m_bulkSize = static_cast<std::size_t>(size);
    m_needed = m_position + m_bulkSize + 2;
    if (m_needed > c_maxCommand) {
        return Fail("command too big");
    }
    m_state = EState::BULK;
    return EStep::ON;
}

RequestParser::EStep RequestParser::ReadBulk(std::string_view command) {
    if (command.size() < m_needed) {
        return EStep::SHORT;
    }
    if (command.substr(m_needed - 2, 2) != "\r\n") {
        return Fail("expected CRLF after bulk string");
    }
    assert(m_argumentsLeft > 0 && m_arguments.size() < c_maxArguments);
    AddArgument(m_position, m_bulkSize);
    m_position = m_scanned = m_needed;
    m_state = EState::BULK_SIZE;
    return --m_argumentsLeft == 0 ? EStep::COMPLETE : EStep::ON;
}

// The line at the current position, without its end, CR LF or a bare LF; the position goes after
// it. False when it has not ended within `maxSize` bytes.
bool RequestParser::TakeLine(std::string_view command, std::size_t maxSize,
                             std::string_view& line) {
    const std::size_t end = command.find('\n', std::max(m_scanned, m_position));
    if (end == std::string_view::npos || end - m_position > maxSize) {
        m_scanned = command.size();
        return false;
    }
    line = command.substr(m_position, end - m_position);
    if (!line.empty() && line.back() == '\r') {
        line.remove_suffix(1);
    }
    m_position = m_scanned = end + 1;
    return true;
}

// Words are parted by blanks; one in single or double quotes may contain them.
bool RequestParser::SplitWords(std::string_view line) {
    std::size_t i = 0;
    for (;;) {
        while (i < line.size() && IsBlank(line[i])) {
            ++i;
        }
        if (i == line.size()) {
            return true;
        }
        const bool quoted = line[i] == '"' || line[i] == '\'';
        const std::size_t begin = quoted ? i + 1 : i;
        const std::size_t end = quoted ? line.find(line[i], begin) : line.find_first_of(" \t", i);
        if (quoted &&
            (end == std::string_view::npos || (end + 1 < line.size() && !IsBlank(line[end + 1])))) {
            Fail("unbalanced quotes in request");
            return false;
        }
        const std::size_t size = line.substr(begin, end - begin).size();
        if (!AddArgument(begin, size)) {
            return false;
        }
        i = begin + size + (quoted ? 1 : 0);
    }
}

bool RequestParser::AddArgument(std::size_t offset, std::size_t size) {
    if (m_arguments.size() == c_maxArguments) {
        Fail("too many arguments");
        return false;
    }
    m_arguments.push_back({static_cast<std::uint32_t>(offset), static_cast<std::uint32_t>(size)});
    return true;
}

RequestParser::EStep RequestParser::Fail(std::string error) {
    m_error = "Protocol error: " + std::move(error);
    return EStep::ON;
}

void RequestReader::Take(std::string_view received, Batch& batch) {
    if (!m_parser.GetError().empty()) {
        return;
    }
    assert(!batch.HasCommands());
    batch.Clear();
    // Mostly nothing is left over from before, and the shared buffer is parsed where it stands.
    if (m_partial != nullptr) {
        Keep(received);
    }
    const std::string_view input = m_partial != nullptr ? GetBytes(*m_partial) : received;
    const std::size_t consumed = m_parser.Parse(input, batch.commands);
    batch.error = m_parser.GetError();
    const std::string_view rest = batch.error.empty() ? input.substr(consumed) : "";
    if (consumed == 0) {
        if (m_partial == nullptr && !rest.empty()) {
            Keep(rest);
        }
        return;
    }
    examples::ChainPtr bytes = std::move(m_partial);
    if (bytes == nullptr) {
        bytes = examples::MakeBlock(consumed);
        examples::Fill(*bytes, received.substr(0, consumed));
    }
    if (!rest.empty()) {
        Keep(rest);
    }
    batch.bytes = std::move(bytes);
}

void RequestReader::Keep(std::string_view bytes) {
    const std::size_t kept = m_partial != nullptr ? m_partial->GetLength() : 0;
    if (m_partial == nullptr || m_partial->GetSpace() < bytes.size()) {
        Grow(kept + bytes.size());
    }
    examples::Fill(*m_partial, bytes);
}

// Doubling keeps the copying linear; the size of the command, once known, ends the growth.
void RequestReader::Grow(std::size_t size) {
    const std::size_t needed = m_parser.GetNeeded();
    std::size_t capacity = 2 * size;
    if (needed >= size && needed < capacity) {
        capacity = needed;
    }
    examples::ChainPtr grown = examples::MakeBlock(capacity);
    if (m_partial != nullptr) {
        examples::Fill(*grown, GetBytes(*m_partial));
    }
    m_partial = std::move(grown);
}

}  // namespace kv_server
