#include <kv_load/Conversation.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace kv_load {

namespace {

constexpr std::size_t c_keyDigits = 9;
constexpr std::string_view c_names[] = {"SET", "GET", "INCR", "PING"};

// What is shown of a reply: some bytes before the first wrong one, and some from there on.
constexpr std::size_t c_shownBefore = 24;
constexpr std::size_t c_shown = 88;

void PutKeyDigits(char* out, std::uint32_t number) {
    for (std::size_t i = c_keyDigits; i-- > 0; number /= 10) {
        out[i] = static_cast<char>('0' + number % 10);
    }
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

// `bytes` in quotes, as far as it is near `position`.
std::string Quote(std::string_view bytes, std::size_t position) {
    constexpr std::string_view c_special = "\r\n\"\\";
    const std::size_t begin = position - std::min(position, c_shownBefore);
    std::string text = begin > 0 ? "...\"" : "\"";
    for (const char c : bytes.substr(begin, c_shown)) {
        const std::size_t special = c_special.find(c);
        if (special != std::string_view::npos) {
            text += {'\\', "rn\"\\"[special]};
        } else if (c >= ' ' && c <= '~') {
            text += c;
        } else {
            char hex[8];
            std::snprintf(hex, sizeof(hex), "\\x%02X", static_cast<unsigned char>(c));
            text += hex;
        }
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
    const std::string key =
        ToHead('$', prefix.size() + c_keyDigits) + prefix + std::string(c_keyDigits, '0') + "\r\n";
    const std::string value = ToHead('$', valueSize) + std::string(valueSize, 'v') + "\r\n";
    m_forms[SET] = {"*3\r\n$3\r\nSET\r\n" + key + value, "+OK\r\n"};
    m_forms[GET] = {"*2\r\n$3\r\nGET\r\n" + key, value};
    m_forms[INCR] = {"*2\r\n$4\r\nINCR\r\n" + key, ":"};
    m_forms[PING] = {"*1\r\n$4\r\nPING\r\n", "+PONG\r\n"};
    for (Form& form : m_forms) {
        form.keyAt = form.request.find(prefix) + prefix.size();
    }
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
    if (m_versions[key] != 0 && choice % 2 == 0) {
        return {GET, m_firstKey + key, m_versions[key], now};
    }
    return {SET, m_firstKey + key, ++m_versions[key], now};
}

// Bytes of every kind, line ends and zeros too.
void Conversation::PutValue(std::string& text, const Request& request) const {
    std::uint64_t state = std::uint64_t{request.key} << 32 ^ request.number;
    char* out = &text[text.size() - 2 - m_valueSize];
    for (std::size_t left = m_valueSize, part = 0; left > 0; left -= part, out += part) {
        const std::uint64_t word = NextRandom(state);
        part = std::min(left, sizeof(word));
        std::memcpy(out, &word, part);
    }
}

void Conversation::Ask(CNxMessageChain& out, std::int64_t now) {
    const Request& request = m_open.emplace_back(MakeUp(now));
    Form& form = m_forms[request.kind];
    if (request.kind != PING) {
        PutKeyDigits(&form.request[form.keyAt], request.key);
    }
    if (request.kind == SET) {
        PutValue(form.request, request);
    }
    out.Append(form.request);
}

// The reply to the oldest request, once its first byte is looked at.
void Conversation::PutReply() {
    const Request& request = m_open.front();
    std::string& reply = m_forms[request.kind].reply;
    if (request.kind == GET) {
        PutValue(reply, request);
    } else if (request.kind == INCR) {
        reply = ToHead(':', request.number);
    }
}

std::string Conversation::Check(CNxMessageChain& received, std::int64_t now,
                                LatencyHistogram& latency) {
    while (!received.IsEmpty()) {
        const std::string_view came = received.GetFront();
        if (m_open.empty()) {
            return "bytes that nobody asked for: " + Quote(came, 0);
        }
        if (m_matched == 0) {
            PutReply();
        }
        const std::string& reply = m_forms[m_open.front().kind].reply;
        const auto expected = std::string_view(reply).substr(m_matched, came.size());
        if (came.substr(0, expected.size()) != expected) {
            return DescribeMismatch(came);
        }
        received.Consume(expected.size());
        m_matched += expected.size();
        if (m_matched == reply.size()) {
            latency.Record(now - m_open.front().askedAt);
            m_open.pop_front();
            m_matched = 0;
        }
    }
    return {};
}

std::string Conversation::DescribeMismatch(std::string_view came) const {
    const std::string& reply = m_forms[m_open.front().kind].reply;
    const std::string_view rest = std::string_view(reply).substr(m_matched);
    const auto differ = std::mismatch(came.begin(), came.end(), rest.begin(), rest.end());
    const auto right = static_cast<std::size_t>(differ.first - came.begin());
    // What matched so far, and the rest of the line that differs.
    const std::size_t end = std::min(came.find('\n', right), came.size() - 1) + 1;
    const std::string line = reply.substr(0, m_matched).append(came, 0, end);
    const std::size_t position = m_matched + right;
    return "wrong reply to " + Describe(m_open.front()) + " at byte " + std::to_string(position) +
           ": expected " + Quote(reply, position) + ", came " + Quote(line, position);
}

std::string Conversation::Describe(const Request& request) const {
    std::string digits(c_keyDigits, '0');
    PutKeyDigits(digits.data(), request.key);
    const std::string name(c_names[request.kind]);
    return request.kind == PING ? name : name + " " + m_prefix + digits;
}

std::string Conversation::DescribeDebt() const {
    if (m_open.empty()) {
        return "no reply";
    }
    const char* const what = m_open.size() == 1 ? " reply, to " : " replies, the next to ";
    return std::to_string(m_open.size()) + what + Describe(m_open.front());
}

}  // namespace kv_load
