// Finds the commands in what a client sends (RESP2: arrays of bulk strings, and lines of words).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kv_server {

// The arguments of a run of commands, as places in the buffer that was parsed.
struct CommandList {
    struct Slice {
        std::uint32_t offset;
        std::uint32_t size;
    };
    std::vector<Slice> arguments;   // of all commands, one after the other
    std::vector<std::size_t> ends;  // of each command: the index behind its last argument

    void Clear() {
        arguments.clear();
        ends.clear();
    }
};

// Keeps its place in an incomplete command, so that every byte is looked at once, however the input
// is cut. Takes no copies: the caller keeps the bytes of an incomplete command and presents them
// again with what has come since.
class RequestParser {
public:
    // Parses `input`, which begins with the command that the last call left incomplete, appends the
    // complete commands to `out`, and answers how many bytes they took. The rest is to be presented
    // again with more behind it. After an error nothing more is parsed.
    std::size_t Parse(std::string_view input, CommandList& out);

    // What is wrong, ready to be sent ("Protocol error: ..."); "" while all is well.
    const std::string& GetError() const { return m_error; }

    // How many bytes the incomplete command has at least, as far as that is known.
    std::size_t GetNeeded() const { return m_needed; }

private:
    enum class EState { BEGIN, INLINE, COUNT, BULK_SIZE, BULK };
    enum class EStep { ON, COMPLETE, SHORT };

    EStep Step(std::string_view command);
    EStep Begin(std::string_view command);
    EStep ReadInline(std::string_view command);
    EStep ReadCount(std::string_view command);
    EStep ReadBulkSize(std::string_view command);
    EStep ReadBulk(std::string_view command);

    bool TakeLine(std::string_view command, std::size_t maxSize, std::string_view& line);
    bool SplitWords(std::string_view line);
    bool AddArgument(std::size_t offset, std::size_t size);
    EStep Fail(std::string error);

    // All offsets are relative to the begin of the current command.
    EState m_state = EState::BEGIN;
    std::size_t m_position = 0;
    std::size_t m_scanned = 0;  // no line end before this
    std::size_t m_needed = 0;
    std::size_t m_argumentsLeft = 0;
    std::size_t m_bulkSize = 0;
    std::vector<CommandList::Slice> m_arguments;
    std::string m_error;
};

}  // namespace kv_server
