// The hash of the keys, which nobody outside can aim at.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace kv_server {

// SipHash (J.-P. Aumasson, D. J. Bernstein, 2012) with that many rounds for each word and at the
// end: without the key nobody finds texts that collide more often than by chance. Any thread.
std::uint64_t SipHash(std::uint64_t key0, std::uint64_t key1, std::string_view text, int wordRounds,
                      int lastRounds);

// Keyed at random, each anew; a copy has the key of its original.
//
// Deliberately not noexcept: the table then keeps each hash instead of computing it again when it
// walks a bucket.
class KeyHash {
public:
    // Throws where the system has no random numbers.
    KeyHash();
    std::size_t operator()(const std::string& key) const;

private:
    std::uint64_t m_key[2];
};

}  // namespace kv_server
