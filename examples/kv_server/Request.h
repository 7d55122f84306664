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

// Of one client. Keeps its place in an incomplete array, so that no argument is looked at twice
// however the input is cut; a line is looked through anew until its end has come. What needs memory
// and finds none throws std::bad_alloc: the client is then to be let go.
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
    std::size_t GetHeld() const { return m_words.capacity() * sizeof(Word); }

private:
    struct Word {
        std::uint32_t offset;
        std::uint32_t size;
    };

    bool Begin(CNxMessageChain& input);
    bool ReadLine(CNxMessageChain& input);
    bool ReadBulk(const CNxMessageChain& input);
    std::size_t ReadHeader(std::string_view text, long& number);
    std::string_view Look(const CNxMessageChain& input, std::size_t position);
    std::string_view Gather(CNxMessageChain& input, std::size_t size);
    bool SplitWords(std::string_view line);
    bool Fail(const std::string& error);

    std::size_t m_begin = 0;     // of the current command in the input
    std::size_t m_position = 0;  // in it
    std::size_t m_left = 0;      // arguments that are still to come
    std::vector<Word> m_words;   // in the command
    std::string m_error;
    char m_look[34];
};

}  // namespace kv_server
