// Writes replies in RESP2.
#pragma once

#include <kv_server/KvStore.h>

#include <charconv>
#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

namespace kv_server {

class ReplyWriter {
public:
    // Writes after what is in the chain, which outlives the writer.
    explicit ReplyWriter(examples::BlockChain& out) : m_out(out) {}

    // The texts of both must not contain a line end; that of an error is the whole of it ("ERR
    // ...").
    void WriteStatus(std::string_view text) { WriteLine('+', text); }
    void WriteError(std::string_view text) { WriteLine('-', text); }

    void WriteNumber(long number) { WriteNumberLine(':', number); }
    void WriteNil() { m_out.Write("$-1\r\n"); }
    void WriteBulk(std::string_view bytes) {
        WriteNumberLine('$', static_cast<long>(bytes.size()));
        m_out.Write(bytes);
        m_out.Write("\r\n");
    }
    void WriteBulk(const Value& value) {
        WriteNumberLine('$', static_cast<long>(value.GetBytes().size()));
        value.AppendTo(m_out);
        m_out.Write("\r\n");
    }

    // To be followed by that many replies.
    void WriteArraySize(std::size_t size) { WriteNumberLine('*', static_cast<long>(size)); }

    // Replies that were written elsewhere.
    void WriteReplies(examples::BlockChain&& replies) { m_out.Append(std::move(replies)); }

private:
    void WriteLine(char type, std::string_view text) {
        std::string line(1, type);
        m_out.Write(line.append(text).append("\r\n"));
    }

    void WriteNumberLine(char type, long number) {
        char line[24];
        line[0] = type;
        char* const end = std::to_chars(line + 1, line + sizeof(line) - 2, number).ptr;
        end[0] = '\r';
        end[1] = '\n';
        m_out.Write({line, static_cast<std::size_t>(end + 2 - line)});
    }

    examples::BlockChain& m_out;
};

}  // namespace kv_server
