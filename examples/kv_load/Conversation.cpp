#include <kv_load/Conversation.h>

#include <algorithm>
#include <cstdio>

namespace kv_load {

namespace {

constexpr std::size_t c_keyDigits = 9;
constexpr std::string_view c_names[] = {"SET", "GET", "INCR", "PING"};

// What is shown of a reply: some bytes before the first wrong one, and some from there on.
constexpr std::size_t c_shownBefore = 24;
constexpr std::size_t c_shown = 88;

std::string ToKeyDigits(std::uint32_t number) {
    std::string digits(c_keyDigits, '0');
    for (auto at = digits.rbegin(); number != 0; number /= 10) {
        *at++ = static_cast<char>('0' + number % 10);
    }
    return digits;
}

std::string ToHead(char type, std::size_t number) {
    return type + std::to_string(number) + "\r\n";
}

// SplitMix64 (G. Steele, D. Lea, C. Flood, 2014).
std::uint64_t NextRandom(std::uint64_t& state) {
    std::uint64_t x = state += 0x9E3779B97F4A7C15U;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9U;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBU;
    return x ^ (x >> 31);
}

// The value of a key in one version: bytes of every kind, line ends and zeros too.
void AppendValue(std::string& out, std::size_t size, std::uint32_t key, std::uint64_t version) {
    out += ToHead('$', size);
    std::uint64_t state = std::uint64_t{key} << 32 ^ version;
    for (std::size_t part = 0; size > 0; size -= part) {
        const std::uint64_t word = NextRandom(state);
        part = std::min(size, sizeof(word));
        out.append(reinterpret_cast<const char*>(&word), part);
    }
    out += "\r\n";
}

std::string Escape(char c) {
    constexpr std::string_view c_special = "\r\n\"\\";
    const std::size_t found = c_special.find(c);
    if (found != std::string_view::npos) {
        return {'\\', "rn\"\\"[found]};
    }
    char text[8] = {c};
    if (c < ' ' || c > '~') {
        std::snprintf(text, sizeof(text), "\\x%02X", static_cast<unsigned char>(c));
    }
    return text;
}

// `bytes` in quotes, as far as it is near `position`.
std::string Quote(std::string_view bytes, std::size_t position) {
    const std::size_t begin = position - std::min(position, c_shownBefore);
    std::string text = begin > 0 ? "...\"" : "\"";
    for (const char c : bytes.substr(begin, c_shown)) {
        text += Escape(c);
    }
    return text + (bytes.size() - begin > c_shown ? "\"..." : "\"");
}

}  // namespace

Conversation::Conversation(const std::string& prefix, std::uint32_t firstKey,
                           std::uint32_t keyCount, std::size_t valueSize)
    : m_prefix(prefix),
      m_firstKey(firstKey),
      m_valueSize(valueSize),
      m_random(firstKey),
      m_versions(keyCount) {
    const std::string key = ToHead('$', prefix.size() + c_keyDigits) + prefix;
    m_heads = {"*3\r\n$3\r\nSET\r\n" + key, "*2\r\n$3\r\nGET\r\n" + key,
               "*2\r\n$4\r\nINCR\r\n" + key, "*1\r\n$4\r\nPING\r\n"};
}

// A key is set before it is read.
Conversation::Request Conversation::MakeUp(std::int64_t now) {
    const std::uint64_t random = NextRandom(m_random);
    const unsigned choice = random % 32;
    if (choice == 0) {
        return {PING, 0, 0, now};
    }
    const auto keyCount = static_cast<std::uint32_t>(m_versions.size());
    if (choice <= 2) {
        return {INCR, m_firstKey + keyCount, ++m_counter, now};
    }
    const auto key = static_cast<std::uint32_t>((random >> 32) % keyCount);
    const bool isRead = m_versions[key] != 0 && choice % 2 == 0;
    return {isRead ? GET : SET, m_firstKey + key, m_versions[key] += isRead ? 0 : 1, now};
}

void Conversation::Ask(CNxMessageChain& out, std::int64_t now) {
    const Request& request = m_open.emplace_back(MakeUp(now));
    m_request = m_heads[request.kind];
    if (request.kind != PING) {
        m_request += ToKeyDigits(request.key) + "\r\n";
    }
    if (request.kind == SET) {
        AppendValue(m_request, m_valueSize, request.key, request.number);
    }
    out.Append(m_request);
}

void Conversation::WriteReply(const Request& request) {
    switch (request.kind) {
        case SET:
            m_reply = "+OK\r\n";
            break;
        case GET:
            m_reply.clear();
            AppendValue(m_reply, m_valueSize, request.key, request.number);
            break;
        case INCR:
            m_reply = ToHead(':', request.number);
            break;
        case PING:
            m_reply = "+PONG\r\n";
            break;
    }
}

std::string Conversation::Check(std::string_view came, std::int64_t now,
                                LatencyHistogram& latency) {
    while (!came.empty()) {
        if (m_open.empty()) {
            return "bytes that nobody asked for: " + Quote(came, 0);
        }
        if (m_matched == 0) {
            WriteReply(m_open.front());
        }
        const auto expected = std::string_view(m_reply).substr(m_matched, came.size());
        if (came.substr(0, expected.size()) != expected) {
            return DescribeMismatch(came);
        }
        came.remove_prefix(expected.size());
        m_matched += expected.size();
        if (m_matched == m_reply.size()) {
            latency.Record(now - m_open.front().askedAt);
            m_open.pop_front();
            m_matched = 0;
        }
    }
    return {};
}

std::string Conversation::DescribeMismatch(std::string_view came) const {
    const std::string_view rest = std::string_view(m_reply).substr(m_matched);
    const auto differ = std::mismatch(came.begin(), came.end(), rest.begin(), rest.end());
    const auto right = static_cast<std::size_t>(differ.first - came.begin());
    // What matched so far, and the rest of the line that differs.
    const std::string line = m_reply.substr(0, m_matched).append(came, 0, came.find('\n', right));
    const std::size_t position = m_matched + right;
    return "wrong reply to " + Describe(m_open.front()) + " at byte " + std::to_string(position) +
           ": expected " + Quote(m_reply, position) + ", came " + Quote(line, position);
}

std::string Conversation::Describe(const Request& request) const {
    const std::string name(c_names[request.kind]);
    return request.kind == PING ? name : name + " " + m_prefix + ToKeyDigits(request.key);
}

std::string Conversation::DescribeDebt() const {
    if (m_open.empty()) {
        return "no reply";
    }
    const std::string next = Describe(m_open.front());
    return m_open.size() == 1 ? "1 reply, to " + next
                              : std::to_string(m_open.size()) + " replies, the next to " + next;
}

}  // namespace kv_load
