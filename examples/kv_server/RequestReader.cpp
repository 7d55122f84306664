#include <kv_server/RequestReader.h>

#include <algorithm>
#include <utility>

namespace kv_server {

namespace {

std::string_view GetBytes(const CNxMessageBlock& block) {
    return {block.GetReadPtr(), block.GetLength()};
}

}  // namespace

void RequestReader::Take(std::string_view received, Batch& batch) {
    if (!m_parser.GetError().empty()) {
        return;
    }
    batch.commands.Clear();
    batch.next = 0;
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
    ChainPtr bytes = std::move(m_partial);
    if (bytes == nullptr) {
        bytes = MakeBlock(consumed);
        static_cast<void>(bytes->Write(received.data(), consumed));  // made to fit
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
    static_cast<void>(m_partial->Write(bytes.data(), bytes.size()));  // grown to fit
}

// Doubling keeps the copying linear; the size of the command, once known, ends the growth.
void RequestReader::Grow(std::size_t size) {
    const std::size_t needed = m_parser.GetNeeded();
    std::size_t capacity = 2 * size;
    if (needed >= size && needed < capacity) {
        capacity = needed;
    }
    ChainPtr grown = MakeBlock(capacity);
    if (m_partial != nullptr) {
        const std::string_view kept = GetBytes(*m_partial);
        static_cast<void>(grown->Write(kept.data(), kept.size()));  // made to fit
    }
    m_partial = std::move(grown);
}

}  // namespace kv_server
