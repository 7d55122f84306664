#include <kv_server/ReplyWriter.h>

#include <charconv>
#include <string>

namespace kv_server {

void ReplyWriter::WriteBulk(std::string_view bytes) {
    WriteNumberLine('$', static_cast<long>(bytes.size()));
    m_out.Write(bytes);
    m_out.Write("\r\n");
}

void ReplyWriter::WriteBulk(const Value& value) {
    WriteNumberLine('$', static_cast<long>(value.GetBytes().size()));
    value.AppendTo(m_out);
    m_out.Write("\r\n");
}

void ReplyWriter::WriteLine(char type, std::string_view text) {
    std::string line(1, type);
    m_out.Write(line.append(text).append("\r\n"));
}

void ReplyWriter::WriteNumberLine(char type, long number) {
    char line[24];
    line[0] = type;
    char* const end = std::to_chars(line + 1, line + sizeof(line) - 2, number).ptr;
    end[0] = '\r';
    end[1] = '\n';
    m_out.Write({line, static_cast<std::size_t>(end + 2 - line)});
}

}  // namespace kv_server
