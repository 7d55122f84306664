#include <kv_server/KeyHash.h>

#include <cstring>
#include <random>

namespace kv_server {

namespace {

// Enough for tables, where nobody sees the hashes themselves.
constexpr int c_wordRounds = 1;
constexpr int c_lastRounds = 3;

constexpr std::size_t c_wordSize = sizeof(std::uint64_t);

std::uint64_t Rotate(std::uint64_t word, int bits) {
    return word << bits | word >> (64 - bits);
}

struct SipState {
    std::uint64_t a, b, c, d;

    void Rounds(int count) {
        for (; count > 0; --count) {
            a += b;
            c += d;
            b = Rotate(b, 13) ^ a;
            d = Rotate(d, 16) ^ c;
            a = Rotate(a, 32) + d;
            c += b;
            b = Rotate(b, 17) ^ c;
            d = Rotate(d, 21) ^ a;
            c = Rotate(c, 32);
        }
    }

    void Take(std::uint64_t word, int rounds) {
        d ^= word;
        Rounds(rounds);
        a ^= word;
    }
};

}  // namespace

std::uint64_t SipHash(std::uint64_t key0, std::uint64_t key1, std::string_view text, int wordRounds,
                      int lastRounds) {
    SipState state{key0 ^ 0x736f6d6570736575, key1 ^ 0x646f72616e646f6d, key0 ^ 0x6c7967656e657261,
                   key1 ^ 0x7465646279746573};
    const std::uint64_t size = text.size();
    std::uint64_t word = 0;
    for (; text.size() >= c_wordSize; text.remove_prefix(c_wordSize)) {
        std::memcpy(&word, text.data(), c_wordSize);
        state.Take(word, wordRounds);
    }
    word = 0;
    std::memcpy(&word, text.data(), text.size());
    state.Take(word | size << 56, wordRounds);
    state.c ^= 0xFF;
    state.Rounds(lastRounds);
    return state.a ^ state.b ^ state.c ^ state.d;
}

KeyHash::KeyHash() {
    std::random_device device;
    for (std::uint64_t& word : m_key) {
        word = std::uint64_t{device()} << 32 | device();
    }
}

std::size_t KeyHash::operator()(const std::string& key) const {
    return SipHash(m_key[0], m_key[1], key, c_wordRounds, c_lastRounds);
}

}  // namespace kv_server
