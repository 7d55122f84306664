// Writes replies in RESP2.
#pragma once

#include <kv_server/Value.h>

#include <cstddef>
#include <string_view>
#include <utility>

namespace kv_server {

class ReplyWriter {
public:
    // Writes behind what is in the chain, which outlives the writer.
    explicit ReplyWriter(BlockChain& out) : m_out(out) {}

    // The texts of both must not contain a line end; that of an error is the whole of it ("ERR
    // ...").
    void WriteStatus(std::string_view text) { WriteLine('+', text); }
    void WriteError(std::string_view text) { WriteLine('-', text); }

    void WriteNumber(long number) { WriteNumberLine(':', number); }
    void WriteNil() { m_out.Write("$-1\r\n"); }
    void WriteBulk(std::string_view bytes);
    void WriteBulk(const Value& value);

    // To be followed by that many replies.
    void WriteArraySize(std::size_t size) { WriteNumberLine('*', static_cast<long>(size)); }

    // Replies that were written elsewhere.
    void WriteReplies(BlockChain&& replies) { m_out.Append(std::move(replies)); }

private:
    void WriteLine(char type, std::string_view text);
    void WriteNumberLine(char type, long number);

    BlockChain& m_out;
};

}  // namespace kv_server
