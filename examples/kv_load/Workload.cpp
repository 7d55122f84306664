#include <kv_load/Workload.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <string_view>

namespace kv_load {

namespace {

constexpr std::size_t c_keyDigits = 8;
constexpr std::size_t c_maxDigits = 20;
constexpr std::string_view c_ping = "*1\r\n$4\r\nPING\r\n";
constexpr std::string_view c_pong = "+PONG\r\n";
constexpr std::string_view c_ok = "+OK\r\n";
constexpr std::string_view c_crlf = "\r\n";

char* Put(char* out, std::string_view bytes) {
    std::memcpy(out, bytes.data(), bytes.size());
    return out + bytes.size();
}

char* PutKeyDigits(char* out, std::uint32_t number) {
    for (std::size_t i = c_keyDigits; i-- > 0; number /= 10) {
        out[i] = static_cast<char>('0' + number % 10);
    }
    return out + c_keyDigits;
}

std::string ToKeyDigits(std::uint32_t number) {
    char digits[c_keyDigits];
    return {digits, PutKeyDigits(digits, number)};
}

std::string ToBulkHead(std::size_t size) {
    return "$" + std::to_string(size) + "\r\n";
}

// The finaliser of a 64-bit hash: every bit of the input changes half of the output.
std::uint64_t Mix(std::uint64_t x) {
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9U;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBU;
    return x ^ (x >> 31);
}

// The value of a key in one version: bytes of every kind, line ends and zeros too.
char* PutValue(char* out, std::size_t size, std::uint32_t key, std::uint64_t version) {
    std::uint64_t state = Mix((static_cast<std::uint64_t>(key) << 32) ^ version);
    char* const end = out + size;
    while (out != end) {
        const std::uint64_t word = Mix(state += 0x9E3779B97F4A7C15U);
        const std::size_t part = std::min(sizeof(word), static_cast<std::size_t>(end - out));
        std::memcpy(out, &word, part);
        out += part;
    }
    return out;
}

}  // namespace

Workload::Workload(const std::string& prefix, std::uint32_t firstKey, std::uint32_t keyCount,
                   std::size_t valueSize)
    : m_prefix(prefix),
      m_firstKey(firstKey),
      m_valueSize(valueSize),
      m_setHead("*3\r\n$3\r\nSET\r\n" + ToBulkHead(prefix.size() + c_keyDigits) + prefix),
      m_getHead("*2\r\n$3\r\nGET\r\n" + ToBulkHead(prefix.size() + c_keyDigits) + prefix),
      m_counterKey(prefix + "counter:" + ToKeyDigits(firstKey)),
      m_incr("*2\r\n$4\r\nINCR\r\n" + ToBulkHead(m_counterKey.size()) + m_counterKey + "\r\n"),
      m_valueHead(ToBulkHead(valueSize)),
      m_random(Mix(firstKey + 1) | 1),
      m_versions(keyCount) {}

std::size_t Workload::GetMaxRequestSize() const {
    const std::size_t set = m_setHead.size() + c_keyDigits + c_crlf.size() + GetMaxReplySize();
    return std::max(set, m_incr.size());
}

std::size_t Workload::GetMaxReplySize() const {
    const std::size_t value = m_valueHead.size() + m_valueSize + c_crlf.size();
    return std::max(value, 1 + c_maxDigits + c_crlf.size());
}

char* Workload::WriteNext(char* out, Request& request) {
    const std::uint64_t random = NextRandom();
    const unsigned choice = random % 32;
    if (choice == 0) {
        request.kind = Request::Kind::PING;
        return Put(out, c_ping);
    }
    if (choice <= 2) {
        request.kind = Request::Kind::INCR;
        request.number = ++m_counter;
        return Put(out, m_incr);
    }
    const auto key = static_cast<std::uint32_t>((random >> 32) % m_versions.size());
    const bool canRead = m_versions[key] != 0;
    return canRead && choice % 2 == 0 ? WriteGet(out, key, request) : WriteSet(out, key, request);
}

char* Workload::WriteSet(char* out, std::uint32_t key, Request& request) {
    request.kind = Request::Kind::SET;
    request.key = m_firstKey + key;
    request.number = ++m_versions[key];
    out = Put(PutKeyDigits(Put(out, m_setHead), request.key), c_crlf);
    out = PutValue(Put(out, m_valueHead), m_valueSize, request.key, request.number);
    return Put(out, c_crlf);
}

char* Workload::WriteGet(char* out, std::uint32_t key, Request& request) const {
    request.kind = Request::Kind::GET;
    request.key = m_firstKey + key;
    request.number = m_versions[key];
    return Put(PutKeyDigits(Put(out, m_getHead), request.key), c_crlf);
}

char* Workload::WriteReply(char* out, const Request& request) const {
    switch (request.kind) {
        case Request::Kind::SET:
            return Put(out, c_ok);
        case Request::Kind::GET:
            out = Put(out, m_valueHead);
            return Put(PutValue(out, m_valueSize, request.key, request.number), c_crlf);
        case Request::Kind::INCR:
            *out++ = ':';
            return Put(std::to_chars(out, out + c_maxDigits, request.number).ptr, c_crlf);
        case Request::Kind::PING:
            break;
    }
    return Put(out, c_pong);
}

std::string Workload::Describe(const Request& request) const {
    switch (request.kind) {
        case Request::Kind::SET:
            return "SET " + m_prefix + ToKeyDigits(request.key);
        case Request::Kind::GET:
            return "GET " + m_prefix + ToKeyDigits(request.key);
        case Request::Kind::INCR:
            return "INCR " + m_counterKey;
        case Request::Kind::PING:
            break;
    }
    return "PING";
}

// A xorshift generator: never 0, good enough to scatter keys.
std::uint64_t Workload::NextRandom() {
    m_random ^= m_random >> 12;
    m_random ^= m_random << 25;
    m_random ^= m_random >> 27;
    return m_random * 0x2545F4914F6CDD1DU;
}

}  // namespace kv_load
