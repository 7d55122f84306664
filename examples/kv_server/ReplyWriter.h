// Writes replies in RESP2. Each is there as a whole or, after a std::bad_alloc, not at all.
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
    explicit ReplyWriter(CNxMessageChain& out) : m_out(out) {}

    // The texts of both must not contain a line end; that of an error is the whole of it ("ERR
    // ...").
    void WriteStatus(std::string_view text) { WriteLine('+', text); }
    void WriteError(std::string_view text) { WriteLine('-', text); }

    void WriteNumber(long number) { m_out.Append(NumberLine(':', number).Get()); }
    void WriteNil() { m_out.Append("$-1\r\n"); }
    void WriteBulk(std::string_view bytes) {
        NumberLine line('$', bytes.size());
        m_out.Append({line.Get(), bytes, "\r\n"});
    }
    void WriteBulk(const Value& value) {
        if (!value.IsShared()) {
            WriteBulk(value.GetBytes());
            return;
        }
        CNxMessageChain whole(NumberLine('$', value.GetBytes().size()).Get());
        value.ShareTo(whole);
        whole.Append("\r\n");
        m_out.Append(std::move(whole));
    }

    // To be followed by that many replies.
    void WriteArraySize(std::size_t size) { m_out.Append(NumberLine('*', size).Get()); }

    // Replies that were written elsewhere.
    void WriteReplies(CNxMessageChain&& replies) { m_out.Append(std::move(replies)); }

private:
    class NumberLine {
    public:
        template <class Number>
        NumberLine(char type, Number number) {
            m_text[0] = type;
            char* const end = std::to_chars(m_text + 1, m_text + sizeof(m_text) - 2, number).ptr;
            end[0] = '\r';
            end[1] = '\n';
            m_size = static_cast<std::size_t>(end + 2 - m_text);
        }
        std::string_view Get() const { return {m_text, m_size}; }

    private:
        char m_text[24];
        std::size_t m_size;
    };

    void WriteLine(char type, std::string_view text) {
        m_out.Append({std::string_view(&type, 1), text, "\r\n"});
    }

    CNxMessageChain& m_out;
};

}  // namespace kv_server
