#include <kv_load/Pipeline.h>

#include <algorithm>
#include <cassert>
#include <cstdio>
#include <cstring>

namespace kv_load {

namespace {

// What is shown of a reply: some bytes before the first wrong one, and some from there on.
constexpr std::size_t c_shownBefore = 24;
constexpr std::size_t c_shownAfter = 64;

std::string Escape(char c) {
    switch (c) {
        case '\r':
            return "\\r";
        case '\n':
            return "\\n";
        case '"':
            return "\\\"";
        case '\\':
            return "\\\\";
        default:
            break;
    }
    if (c >= ' ' && c <= '~') {
        return {c};
    }
    char hex[5];
    std::snprintf(hex, sizeof(hex), "\\x%02X",
                  static_cast<unsigned>(static_cast<unsigned char>(c)));
    return hex;
}

// `bytes` in quotes, as far as it is near `position`.
std::string Quote(const std::string& bytes, std::size_t position) {
    const std::size_t begin = position > c_shownBefore ? position - c_shownBefore : 0;
    const std::size_t end = std::min(bytes.size(), position + c_shownAfter);
    std::string text = begin > 0 ? "...\"" : "\"";
    for (std::size_t i = begin; i < end; ++i) {
        text += Escape(bytes[i]);
    }
    text += end < bytes.size() ? "\"..." : "\"";
    return text;
}

}  // namespace

Pipeline::Pipeline(Workload& workload, std::size_t depth)
    : m_workload(workload), m_requests(depth), m_reply(new char[workload.GetMaxReplySize()]) {}

char* Pipeline::WriteNext(char* out) {
    assert(!IsFull());
    const std::size_t last = m_first + m_count;
    Request& request = m_requests[last < m_requests.size() ? last : last - m_requests.size()];
    ++m_count;
    ++m_unsent;
    return m_workload.WriteNext(out, request);
}

void Pipeline::MarkSent(std::int64_t now) {
    for (; m_unsent > 0; --m_unsent) {
        const std::size_t at = m_first + m_count - m_unsent;
        m_requests[at < m_requests.size() ? at : at - m_requests.size()].sentAt = now;
    }
}

bool Pipeline::Check(const char* data, std::size_t size, std::int64_t now,
                     LatencyHistogram& latency) {
    assert(m_mismatch.empty());
    while (size > 0) {
        // The server cannot answer what it has not been asked.
        if (m_count == m_unsent) {
            RememberMismatch(data, size);
            return false;
        }
        const Request& oldest = m_requests[m_first];
        if (m_matched == 0) {
            char* const end = m_workload.WriteReply(m_reply.get(), oldest);
            m_replySize = static_cast<std::size_t>(end - m_reply.get());
        }
        const std::size_t part = std::min(size, m_replySize - m_matched);
        if (std::memcmp(data, m_reply.get() + m_matched, part) != 0) {
            RememberMismatch(data, size);
            return false;
        }
        data += part;
        size -= part;
        m_matched += part;
        if (m_matched == m_replySize) {
            latency.Record(now - oldest.sentAt);
            Pop();
        }
    }
    return true;
}

std::string Pipeline::DescribeDebt() const {
    if (m_count == 0) {
        return "no reply";
    }
    const std::string next = m_workload.Describe(m_requests[m_first]);
    return m_count == 1 ? "1 reply, to " + next
                        : std::to_string(m_count) + " replies, the next to " + next;
}

void Pipeline::Pop() {
    assert(m_count > m_unsent);
    m_first = m_first + 1 < m_requests.size() ? m_first + 1 : 0;
    --m_count;
    m_matched = 0;
}

void Pipeline::RememberMismatch(const char* data, std::size_t size) {
    if (m_count == m_unsent) {
        const std::string came(data, std::min(size, c_shownAfter + 1));
        m_mismatch = "bytes that nobody asked for: " + Quote(came, 0);
        return;
    }
    const std::string expected(m_reply.get(), m_replySize);
    const char* const restOfExpected = m_reply.get() + m_matched;
    const std::size_t comparable = std::min(size, m_replySize - m_matched);
    const char* const firstWrong = std::mismatch(data, data + comparable, restOfExpected).first;
    const std::size_t position = m_matched + static_cast<std::size_t>(firstWrong - data);
    // What matched so far, and the rest of the line that differs.
    const char* const lineEnd = std::find(firstWrong, data + size, '\n');
    const char* const cameEnd = lineEnd != data + size ? lineEnd + 1 : lineEnd;
    const std::string came = expected.substr(0, position) + std::string(firstWrong, cameEnd);
    m_mismatch = "wrong reply to " + m_workload.Describe(m_requests[m_first]) + " at byte " +
                 std::to_string(position) + ": expected " + Quote(expected, position) + ", came " +
                 Quote(came, position);
}

}  // namespace kv_load
