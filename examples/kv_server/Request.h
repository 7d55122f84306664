// From the bytes that a client sends (RESP2: arrays of bulk strings, and lines of words) to batches
// of commands.
#pragma once

#include <common/BlockChain.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace kv_server {

// How much one client may ask for.
constexpr std::size_t c_maxBulk = 16UL << 20;     // bytes of one argument
constexpr std::size_t c_maxArguments = 1024;      // of one command, its name included
constexpr std::size_t c_maxCommand = 64UL << 20;  // bytes of one command in all
constexpr std::size_t c_maxInline = 64UL << 10;   // bytes of a command in one line
constexpr std::size_t c_maxWaiting = 4UL << 20;   // bytes of replies that wait for the client

// A whole number in decimal and nothing else; `out` is undefined otherwise.
[[nodiscard]] bool ToNumber(std::string_view text, long& out);

// For a line that is shown to people: what is not printable ASCII could end the line or drive a
// terminal, and becomes '?'.
std::string ToShown(std::string_view text);

// The arguments of a run of commands, as places in the buffer that was parsed.
struct CommandList {
    struct Slice {
        std::uint32_t offset;
        std::uint32_t size;
    };
    std::vector<Slice> arguments;   // of all commands, one after the other
    std::vector<std::size_t> ends;  // of each command: the index after its last argument

    // Gives back what one long run took.
    void Clear() {
        if (GetHeld() > c_kept) {
            *this = CommandList();
        }
        arguments.clear();
        ends.clear();
    }

    std::size_t GetHeld() const {
        return arguments.capacity() * sizeof(Slice) + ends.capacity() * sizeof(std::size_t);
    }

private:
    static constexpr std::size_t c_kept = 4096;
};

// What travels between the network thread and the store's thread: the commands that one client has
// sent in one go, on their way there; the replies on the way back. One thread has it at a time; a
// client has one batch, and uses it again and again.
struct Batch {
    std::uint64_t clientId = 0;

    examples::ChainPtr bytes;  // one block, which the slices of `commands` point into
    CommandList commands;
    std::size_t next = 0;  // the first command that has not been run
    std::string error;     // of the input after the last command, until it is written as a reply

    examples::BlockChain replies;
    bool quit = false;  // the client is to be let go after these replies

    std::unique_ptr<Batch> following;  // of a BatchBox

    bool HasCommands() const { return next < commands.ends.size(); }
    bool HasWork() const { return HasCommands() || !error.empty(); }

    // Bytes of memory, without the replies.
    std::size_t GetHeld() const {
        return (bytes != nullptr ? bytes->GetCapacity() : 0) + commands.GetHeld();
    }

    // Drops what was to be done, not the replies.
    void Clear() {
        bytes.reset();
        commands.Clear();
        next = 0;
        error.clear();
    }
};

// Keeps its place in an incomplete command, so that every byte is looked at once, however the input
// is cut. Takes no copies: the caller keeps the bytes of an incomplete command and presents them
// again with what has come since.
class RequestParser {
public:
    // Parses `input`, which begins with the command that the last call left incomplete, appends the
    // complete commands to `out`, and returns how many bytes they took. The rest is to be presented
    // again with more after it. After an error nothing more is parsed.
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

    // All offsets are relative to the beginning of the current command.
    EState m_state = EState::BEGIN;
    std::size_t m_position = 0;
    std::size_t m_scanned = 0;  // no line end before this
    std::size_t m_needed = 0;
    std::size_t m_argumentsLeft = 0;
    std::size_t m_bulkSize = 0;
    std::vector<CommandList::Slice> m_arguments;
    std::string m_error;
};

// Collects what a client sends until commands are complete. Keeps the bytes of an incomplete
// command in one block, which grows with what has really come, never with what was announced.
// What needs memory and finds none throws std::bad_alloc: the client is then to be let go.
class RequestReader {
public:
    // Takes received bytes. When they complete commands, puts these into `batch`, which must have
    // none left. What is wrong with the input goes to its `error`; what comes later is ignored.
    void Take(std::string_view received, Batch& batch);

    // Bytes of memory.
    std::size_t GetHeld() const { return m_partial != nullptr ? m_partial->GetCapacity() : 0; }

private:
    void Keep(std::string_view bytes);
    void Grow(std::size_t size);

    RequestParser m_parser;
    examples::ChainPtr m_partial;
};

}  // namespace kv_server
