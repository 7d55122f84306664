// Commands out of the bytes that a client sends (RESP2: arrays of bulk strings, and lines of
// words).
#pragma once

#include <nx/buffer/CNxMessageChain.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kv_server {

// How much one client may ask for.
constexpr std::size_t c_maxBulk = 16UL << 20;     // bytes of one argument
constexpr std::size_t c_maxArguments = 1024;      // of one command, its name included
constexpr std::size_t c_maxCommand = 64UL << 20;  // bytes of one command in all
constexpr std::size_t c_maxInline = 64UL << 10;   // bytes of a command in one line

// A whole number in decimal and nothing else; `out` is undefined otherwise.
[[nodiscard]] bool ToNumber(std::string_view text, long& out);

// For a line that is shown to people: what is not printable ASCII could end the line or drive a
// terminal, and becomes '?'.
std::string ToShown(std::string_view text);

// A command's words, its name first.
using Arguments = std::vector<std::string_view>;

// Of one client. Keeps its place in an incomplete command, so that every byte is looked at once,
// however the input is cut. What needs memory and finds none throws std::bad_alloc: the client is
// then to be let go.
class RequestParser {
public:
    // The next command of the input, which begins with what the last Finish left. The arguments lie
    // in the input, in one piece, and are good until the next call. False when the command is not
    // complete or not right.
    [[nodiscard]] bool Next(CNxMessageChain& input, Arguments& out);

    // Drops the commands that were given out. Before the input grows.
    void Finish(CNxMessageChain& input);

    // What is wrong ("Protocol error: ..."), after which nothing more is to be parsed; "" while all
    // is well.
    const std::string& GetError() const { return m_error; }

    // Bytes of memory.
    std::size_t GetHeld() const { return m_slices.capacity() * sizeof(Slice); }

private:
    enum class EStep { ON, COMPLETE, SHORT };
    struct Slice {
        std::uint32_t offset;
        std::uint32_t size;
    };
    struct HeaderErrors;
    static const HeaderErrors c_countErrors;
    static const HeaderErrors c_bulkErrors;

    // Longer than any number that can be meant.
    static constexpr std::size_t c_maxHeader = 32;
    static constexpr std::size_t c_noBulk = static_cast<std::size_t>(-1);

    EStep Begin(CNxMessageChain& input);
    EStep ReadInline(CNxMessageChain& input);
    EStep ReadBulk(CNxMessageChain& input);
    EStep ReadHeader(const CNxMessageChain& input, long most, const HeaderErrors& errors,
                     long& number);
    EStep SplitWords(std::string_view line);
    EStep Fail(std::string error);
    std::string_view Look(const CNxMessageChain& input, std::size_t position);
    std::string_view Gather(CNxMessageChain& input, std::size_t size);

    std::size_t m_begin = 0;     // of the current command in the input
    std::size_t m_position = 0;  // in it, as the next ones
    std::size_t m_scanned = 0;   // no line end before this
    std::size_t m_left = 0;      // arguments that are still to come
    std::size_t m_bulkSize = c_noBulk;
    std::vector<Slice> m_slices;
    std::string m_error;
    char m_look[c_maxHeader + 2];
};

}  // namespace kv_server
