// The hash of the keys, which nobody outside can aim at.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <string_view>

namespace kv_server {

// SipHash-1-3 (J.-P. Aumasson, D. J. Bernstein, 2012), keyed at random, each anew; a copy has the
// key of its original. Without the key nobody finds texts that collide more often than by chance.
//
// Deliberately not noexcept: the table then keeps each hash instead of computing it again when it
// walks a bucket.
class KeyHash {
public:
    // Throws where the system has no random numbers.
    KeyHash() {
        std::random_device device;
        for (std::uint64_t& word : m_key) {
            word = std::uint64_t{device()} << 32 | device();
        }
    }

    std::size_t operator()(const std::string& key) const {
        State state{m_key[0] ^ 0x736f6d6570736575, m_key[1] ^ 0x646f72616e646f6d,
                    m_key[0] ^ 0x6c7967656e657261, m_key[1] ^ 0x7465646279746573};
        std::string_view text = key;
        for (; text.size() >= sizeof(std::uint64_t); text.remove_prefix(sizeof(std::uint64_t))) {
            state.Take(ToWord(text.data(), sizeof(std::uint64_t)));
        }
        state.Take(ToWord(text.data(), text.size()) | key.size() << 56);
        state.c ^= 0xFF;
        state.Round();
        state.Round();
        state.Round();
        return state.a ^ state.b ^ state.c ^ state.d;
    }

private:
    struct State {
        std::uint64_t a, b, c, d;

        void Round() {
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
        void Take(std::uint64_t word) {
            d ^= word;
            Round();
            a ^= word;
        }
    };

    static std::uint64_t Rotate(std::uint64_t word, int bits) {
        return word << bits | word >> (64 - bits);
    }
    static std::uint64_t ToWord(const char* bytes, std::size_t size) {
        std::uint64_t word = 0;
        std::memcpy(&word, bytes, size);
        return word;
    }

    std::uint64_t m_key[2];
};

}  // namespace kv_server
